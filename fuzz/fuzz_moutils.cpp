// Fuzzes MoUtils on attribute value containers built from the fuzzer's
// bytes: any value type (unhandled ones included), strings present or null,
// and structures whose members hold further containers, structures inside
// structures included. A copy must equal its source element by element and
// free cleanly; a container that cannot be copied must throw the documented
// ZelException and leave nothing allocated; copyStructMember's partial copy
// must be freed completely by the clean-up its header documents. The leak
// checker reports anything left behind.
#include <cstring>
#include <string>

#include "FuzzSupport.h"
#include <zel/MoUtils.h>
#include <zel/ZelException.h>

namespace {

using Zel::MoUtils;

const int kMaxDepth = 3;
const uint32_t kMaxCount = 5;
const char kUnsupported[] = "Unsupported State. Attribute value type ";
const char kNested[] = "Structs within Structs is not supported by ZEL";

bool isHandled(int32_t type) { return type >= 1 && type <= 14 && type != 13; }

// Builds a container the way copies are allocated (new / new[]), so that the
// source can be freed with the same rules.
ZelMoAttributeValueContainer* build(ZelFuzz::Reader& in, int depth) {
  auto* c = new ZelMoAttributeValueContainer;
  // Mostly handled types; 0, 13, 15 and a few wild values now and then.
  const uint8_t t = in.byte();
  c->type = static_cast<ZelMoAttributeValueTypeT>(t < 240 ? t % 16 : static_cast<int32_t>(in.bits64()));
  c->count = in.byte() % (kMaxCount + 1);
  c->values = new ZelMoAttributeValueData[c->count];
  for (uint32_t i = 0; i < c->count; ++i) {
    ZelMoAttributeValueData& slot = c->values[i];
    slot.u64 = in.bits64();  // booleans too: any byte, as a framework in C may leave
    if (c->type == ZelMoAttributeValueTypeString || c->type == ZelMoAttributeValueTypeReference) {
      const uint8_t flag = in.byte();
      slot.theString = (flag & 1) != 0 ? nullptr : MoUtils::copyString(in.text(24).c_str());
    } else if (c->type == ZelMoAttributeValueTypeStruct) {
      slot.structMember = nullptr;
      ZelMoAttributeValueStructMember** link = &slot.structMember;
      const uint8_t members = depth < kMaxDepth ? in.byte() % 4 : 0;
      for (uint8_t m = 0; m < members; ++m) {
        auto* member = new ZelMoAttributeValueStructMember;
        const uint8_t flag = in.byte();
        member->name = (flag & 1) != 0 ? nullptr : MoUtils::copyString(in.text(12).c_str());
        member->value = build(in, depth + 1);
        member->next = nullptr;
        *link = member;
        link = &member->next;
      }
    }
  }
  return c;
}

// Frees a built container of any type, handled or not.
void destroy(ZelMoAttributeValueContainer* c) {
  if (c == nullptr) return;
  for (uint32_t i = 0; i < c->count; ++i) {
    ZelMoAttributeValueData& slot = c->values[i];
    if (c->type == ZelMoAttributeValueTypeString || c->type == ZelMoAttributeValueTypeReference) {
      delete[] slot.theString;
    } else if (c->type == ZelMoAttributeValueTypeStruct) {
      ZelMoAttributeValueStructMember* member = slot.structMember;
      while (member != nullptr) {
        ZelMoAttributeValueStructMember* next = member->next;
        delete[] member->name;
        destroy(member->value);
        delete member;
        member = next;
      }
    }
  }
  delete[] c->values;
  delete c;
}

// What a copy of c must do: "" when it succeeds, else the start of the reason.
std::string expectedFailure(const ZelMoAttributeValueContainer* c);

std::string expectedMemberFailure(const ZelMoAttributeValueStructMember* member) {
  for (; member != nullptr; member = member->next) {
    if (member->value->type == ZelMoAttributeValueTypeStruct) return kNested;
    const std::string failure = expectedFailure(member->value);
    if (!failure.empty()) return failure;
  }
  return "";
}

std::string expectedFailure(const ZelMoAttributeValueContainer* c) {
  if (c->count == 0) return "";
  if (!isHandled(c->type)) return kUnsupported + std::to_string(c->type) + " ";
  if (c->type != ZelMoAttributeValueTypeStruct) return "";
  for (uint32_t i = 0; i < c->count; ++i) {
    const std::string failure = expectedMemberFailure(c->values[i].structMember);
    if (!failure.empty()) return failure;
  }
  return "";
}

bool sameString(const char* a, const char* b, bool distinct) {
  if (a == nullptr || b == nullptr) return a == b;
  return std::strcmp(a, b) == 0 && (!distinct || a != b);
}

// True when copy is a faithful deep copy of source.
bool sameValue(const ZelMoAttributeValueContainer* source, const ZelMoAttributeValueContainer* copy) {
  if (copy == nullptr || copy == source) return false;
  if (copy->type != source->type || copy->count != source->count || copy->values == nullptr) return false;
  for (uint32_t i = 0; i < source->count; ++i) {
    const ZelMoAttributeValueData& s = source->values[i];
    const ZelMoAttributeValueData& d = copy->values[i];
    switch (source->type) {
      case ZelMoAttributeValueTypeInt8: if (d.i8 != s.i8) return false; break;
      case ZelMoAttributeValueTypeInt16: if (d.i16 != s.i16) return false; break;
      case ZelMoAttributeValueTypeInt32: if (d.i32 != s.i32) return false; break;
      case ZelMoAttributeValueTypeInt64: if (d.i64 != s.i64) return false; break;
      case ZelMoAttributeValueTypeUint8: if (d.u8 != s.u8) return false; break;
      case ZelMoAttributeValueTypeUint16: if (d.u16 != s.u16) return false; break;
      case ZelMoAttributeValueTypeUint32: if (d.u32 != s.u32) return false; break;
      case ZelMoAttributeValueTypeUint64: if (d.u64 != s.u64) return false; break;
      case ZelMoAttributeValueTypeBool: if (d.u8 != s.u8) return false; break;
      case ZelMoAttributeValueTypeEnum:
        // Deliberately narrowed to the low 16 bits.
        if (d.i16 != static_cast<int16_t>(static_cast<uint32_t>(s.theEnum) & 0xFFFFu)) return false;
        break;
      case ZelMoAttributeValueTypeString:
      case ZelMoAttributeValueTypeReference:
        if (!sameString(s.theString, d.theString, true)) return false;
        break;
      case ZelMoAttributeValueTypeStruct: {
        const ZelMoAttributeValueStructMember* a = s.structMember;
        const ZelMoAttributeValueStructMember* b = d.structMember;
        for (; a != nullptr; a = a->next, b = b->next) {
          if (b == nullptr || b == a || !sameString(a->name, b->name, true) || !sameValue(a->value, b->value))
            return false;
        }
        if (b != nullptr) return false;
        break;
      }
      default:
        return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ZelFuzz::Reader in(data, size);
  ZelMoAttributeValueContainer* source = build(in, 0);
  const std::string failure = expectedFailure(source);

  // The whole container.
  ZelMoAttributeValueContainer* copy = nullptr;
  std::string reason;
  try {
    copy = MoUtils::copyAttributeValueContainer(source);
  } catch (const Zel::ZelException& e) {
    reason = e.getReason();
  }
  if (failure.empty()) {
    FUZZ_CHECK(reason.empty(), "unexpected failure: " + reason);
    FUZZ_CHECK(sameValue(source, copy), "the copy differs from its source");
    MoUtils::deleteAttributeValueContainer(&copy);
    FUZZ_CHECK(copy == nullptr, "delete sets the pointer to null");
  } else {
    FUZZ_CHECK(copy == nullptr, "a failed copy returns nothing");
    FUZZ_CHECK(reason.compare(0, failure.size(), failure) == 0, "reason [" + reason + "], expected [" + failure + "]");
  }

  // Each structure slot's member list on its own, with the documented
  // clean-up on failure.
  if (source->type == ZelMoAttributeValueTypeStruct) {
    for (uint32_t i = 0; i < source->count; ++i) {
      ZelMoAttributeValueStructMember* head = nullptr;
      const std::string memberFailure = expectedMemberFailure(source->values[i].structMember);
      std::string memberReason;
      try {
        MoUtils::copyStructMember(source->values[i].structMember, &head);
      } catch (const Zel::ZelException& e) {
        memberReason = e.getReason();
      }
      FUZZ_CHECK(memberReason.compare(0, memberFailure.size(), memberFailure) == 0 &&
                     memberReason.empty() == memberFailure.empty(),
                 "copyStructMember reason [" + memberReason + "], expected [" + memberFailure + "]");
      MoUtils::deleteStructMemberList(&head);
    }
  }

  // Deleting the source itself: allowed for handled types (it is allocated
  // the way copies are); an unhandled type with elements throws and leaves it.
  if (source->count > 0 && !isHandled(source->type)) {
    ZelMoAttributeValueContainer* kept = source;
    bool threw = false;
    try {
      MoUtils::deleteAttributeValueContainer(&kept);
    } catch (const Zel::ZelException& e) {
      threw = e.getReason().compare(0, sizeof(kUnsupported) - 1, kUnsupported) == 0;
    }
    FUZZ_CHECK(threw && kept == source, "deleting an unhandled type throws and keeps the container");
    destroy(source);
  } else if (expectedFailure(source).empty() || source->type != ZelMoAttributeValueTypeStruct) {
    MoUtils::deleteAttributeValueContainer(&source);
    FUZZ_CHECK(source == nullptr, "delete sets the pointer to null");
  } else {
    // A structure whose members cannot be copied may hold unhandled types
    // deeper down, which delete rejects part-way; free it by hand.
    destroy(source);
  }
  return 0;
}
