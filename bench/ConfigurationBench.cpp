// ConfigurationBench.cpp - cost of walking every element of one name in a
// configuration document, and of loading it.
//
//   BM_ConfigWalk_ZelList/<n>   ZelConfiguration::getElementsByTagName on a
//       document of n elements <v> under one root, then item(i) and get_text
//       for every i: the list is collected once, so the walk is linear.
//   BM_ConfigWalk_PocoList/<n>  the same walk over POCO's own
//       Document::getElementsByTagName list (what the reader returned before):
//       each item(i) searches the tree from the top, so the walk is
//       quadratic. Run up to n = 8000 only; 32 000 take seconds per walk.
//   BM_ConfigLoad_Zel/<n>, BM_ConfigLoad_PocoDOMParser/<n>  parsing that
//       document with ZelConfiguration::load (POCO's DOM builder with the
//       nesting count) and with a plain Poco::XML::DOMParser set up the same
//       way: the depth limit costs nothing measurable.
// items_per_second is elements walked (or parsed) per second.
#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>
#include <Poco/DOM/NodeList.h>
#include <benchmark/benchmark.h>

#include <string>

#include <zel/ZelConfiguration.h>

namespace {

// <r><v>value 0</v>...<v>value n-1</v></r>
std::string manyEqualElements(int64_t n) {
  std::string text = "<r>";
  for (int64_t i = 0; i < n; ++i) text += "<v>value " + std::to_string(i) + "</v>";
  text += "</r>";
  return text;
}

size_t walk(const Zel::ZelConfiguration& config, Poco::XML::NodeList* list) {
  size_t bytes = 0;
  for (unsigned long i = 0; i < list->length(); ++i)
    bytes += config.get_text(static_cast<Poco::XML::Element*>(list->item(i))).size();
  return bytes;
}

void BM_ConfigWalk_ZelList(benchmark::State& state) {
  Zel::ZelConfiguration config;
  config.load(manyEqualElements(state.range(0)));
  for (auto _ : state) {
    Poco::AutoPtr<Poco::XML::NodeList> list(config.getElementsByTagName("v"));
    benchmark::DoNotOptimize(walk(config, list));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ConfigWalk_ZelList)->Arg(1000)->Arg(8000)->Arg(32000)->Unit(benchmark::kMillisecond);

void BM_ConfigWalk_PocoList(benchmark::State& state) {
  Zel::ZelConfiguration config;
  Poco::XML::DOMParser parser;
  parser.setFeature(Poco::XML::DOMParser::FEATURE_FILTER_WHITESPACE, true);
  Poco::AutoPtr<Poco::XML::Document> document(parser.parseString(manyEqualElements(state.range(0))));
  for (auto _ : state) {
    Poco::AutoPtr<Poco::XML::NodeList> list(document->getElementsByTagName("v"));
    benchmark::DoNotOptimize(walk(config, list));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ConfigWalk_PocoList)->Arg(1000)->Arg(8000)->Unit(benchmark::kMillisecond);

void BM_ConfigLoad_Zel(benchmark::State& state) {
  const std::string text = manyEqualElements(state.range(0));
  for (auto _ : state) {
    Zel::ZelConfiguration config;
    config.load(text);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ConfigLoad_Zel)->Arg(32000)->Unit(benchmark::kMillisecond);

void BM_ConfigLoad_PocoDOMParser(benchmark::State& state) {
  const std::string text = manyEqualElements(state.range(0));
  for (auto _ : state) {
    Poco::XML::DOMParser parser;
    parser.setFeature(Poco::XML::DOMParser::FEATURE_FILTER_WHITESPACE, true);
    Poco::AutoPtr<Poco::XML::Document> document(parser.parseString(text));
    benchmark::DoNotOptimize(document.get());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ConfigLoad_PocoDOMParser)->Arg(32000)->Unit(benchmark::kMillisecond);

}  // namespace
