// DnUtilBench.cpp - cost of validating a DN with Zel::DnUtil::isValidDn, next
// to applying Zel::DnUtil::REGEXP_FOR_3GPP_DN with backtracking engines.
//
//   BM_DnValidate_IsValidDn/<kind>   isValidDn on
//       0 typical  "SubNetwork=Europe,...,NRCellDU=NR01-1" (103 bytes)
//       1 realistic leaf that defeats the backtracking engines
//                  "...,NRCellDU=NR01gNodeBRadio00087-1"
//       2 a 10 000-character DN of about 1 200 RDNs
//       3 a 10 000-character DN whose last value is long and ends in "#"
//   BM_DnValidate_*OnValue/<n>  "A=" followed by n value characters and a
//       closing "#" (rejected late, the worst case for backtracking):
//       isValidDn, std::regex (ECMAScript, default backtracking executor)
//       and Poco::RegularExpression (PCRE). std::regex is only run up to
//       n = 10: each 2 more characters cost it about 9 times as long. PCRE
//       gives up with an exception near n = 20 (its match limit); the
//       benchmark reports that as an error.
//   BM_DnValidate_StdRegexTypical  std::regex on the typical DN above (its
//       last value is short enough; the realistic leaf of kind 1 would not
//       finish).
// bytes_per_second is input bytes validated per second.
#include <Poco/Exception.h>
#include <Poco/RegularExpression.h>
#include <benchmark/benchmark.h>

#include <regex>
#include <string>

#include <zel/DnUtil.h>

namespace {

const std::string kTypicalDn =
    "SubNetwork=Europe,SubNetwork=Ireland,MeContext=NR01,ManagedElement=NR01,GNBDUFunction=1,NRCellDU=NR01-1";
const std::string kBacktrackingKillerDn =
    "SubNetwork=Europe,SubNetwork=Ireland,MeContext=NR01,ManagedElement=NR01,GNBDUFunction=1,"
    "NRCellDU=NR01gNodeBRadio00087-1";

// RDNs "RdnN=VVV" up to 10 000 bytes; the last value is padded to fit.
std::string manyRdns() {
  std::string dn;
  for (int i = 0; dn.size() < 10000 - 20; ++i) {
    if (i > 0) dn += ',';
    dn += "Rdn" + std::to_string(i % 10) + "=" + std::to_string(100 + i % 900);
  }
  dn += ",Last=";
  dn.append(10000 - dn.size(), 'x');
  return dn;
}

std::string longLastValue() {
  std::string dn = "SubNetwork=Europe,ManagedElement=NR01,NRCellDU=";
  dn.append(10000 - dn.size() - 1, 'x');
  dn += '#';
  return dn;
}

std::string lateFailure(int valueLength) { return "A=" + std::string(valueLength, 'x') + "#"; }

void BM_DnValidate_IsValidDn(benchmark::State& state) {
  std::string dn;
  bool expected = true;
  switch (state.range(0)) {
    case 0:
      dn = kTypicalDn;
      break;
    case 1:
      dn = kBacktrackingKillerDn;
      break;
    case 2:
      dn = manyRdns();
      break;
    default:
      dn = longLastValue();
      expected = false;
      break;
  }
  for (auto _ : state) {
    const bool valid = Zel::DnUtil::isValidDn(dn);
    benchmark::DoNotOptimize(valid);
    if (valid != expected) state.SkipWithError("unexpected result");
  }
  state.SetLabel(std::to_string(dn.size()) + " bytes");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(dn.size()));
}
BENCHMARK(BM_DnValidate_IsValidDn)->DenseRange(0, 3);

void BM_DnValidate_StdRegexTypical(benchmark::State& state) {
  static const std::regex expression(Zel::DnUtil::REGEXP_FOR_3GPP_DN, std::regex::ECMAScript);
  for (auto _ : state) {
    const bool valid = std::regex_match(kTypicalDn, expression);
    benchmark::DoNotOptimize(valid);
    if (!valid) state.SkipWithError("unexpected result");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kTypicalDn.size()));
}
BENCHMARK(BM_DnValidate_StdRegexTypical)->Unit(benchmark::kMicrosecond);

void BM_DnValidate_IsValidDnOnValue(benchmark::State& state) {
  const std::string dn = lateFailure(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(Zel::DnUtil::isValidDn(dn));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(dn.size()));
}
BENCHMARK(BM_DnValidate_IsValidDnOnValue)->DenseRange(2, 10, 2)->Arg(20)->Arg(30);

void BM_DnValidate_StdRegexOnValue(benchmark::State& state) {
  static const std::regex expression(Zel::DnUtil::REGEXP_FOR_3GPP_DN, std::regex::ECMAScript);
  const std::string dn = lateFailure(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(std::regex_match(dn, expression));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(dn.size()));
}
BENCHMARK(BM_DnValidate_StdRegexOnValue)->DenseRange(2, 10, 2)->Unit(benchmark::kMicrosecond);

void BM_DnValidate_PocoRegexOnValue(benchmark::State& state) {
  static const Poco::RegularExpression expression(Zel::DnUtil::REGEXP_FOR_3GPP_DN);
  const std::string dn = lateFailure(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    try {
      Poco::RegularExpression::Match match;
      benchmark::DoNotOptimize(expression.match(dn, match));
    } catch (const Poco::Exception& e) {
      state.SkipWithError(("PCRE gave up: " + e.displayText()).c_str());
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(dn.size()));
}
BENCHMARK(BM_DnValidate_PocoRegexOnValue)->DenseRange(2, 10, 2)->Arg(16)->Arg(20)->Unit(benchmark::kMicrosecond);

}  // namespace
