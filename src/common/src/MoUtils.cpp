#include <zel/MoUtils.h>

#include <cstring>
#include <memory>

#include <zel/ZelException.h>

namespace Zel {

namespace {

[[noreturn]] void throwUnsupportedType(int32_t type) {
  throw ZelException("Unsupported State. Attribute value type %d should not appear in NbiNotificationService",
                     static_cast<int>(type));
}

bool isHandledType(int32_t type) {
  return type >= ZelMoAttributeValueTypeInt8 && type <= ZelMoAttributeValueTypeStruct &&
         type != ZelMoAttributeValueTypeReserved13;
}

// Narrows an enumeration to the 16 bits a copy keeps (65537 -> 1). Copies
// have always carried enumerations in two bytes; users depend on it.
int16_t lowSixteenBits(int32_t value) {
  return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(value) & 0xFFFFu));
}

void freeMemberList(ZelMoAttributeValueStructMember* member);

// Frees what one slot owns. Plain and unhandled types own nothing, so this
// never throws for them; a structure's members are freed one by one.
void freeSlot(ZelMoAttributeValueTypeT type, ZelMoAttributeValueData& slot) {
  switch (type) {
    case ZelMoAttributeValueTypeString:
      if (slot.theString != nullptr) delete[] slot.theString;
      slot.theString = nullptr;
      break;
    case ZelMoAttributeValueTypeReference:
      if (slot.moRef != nullptr) delete[] slot.moRef;
      slot.moRef = nullptr;
      break;
    case ZelMoAttributeValueTypeStruct:
      freeMemberList(slot.structMember);
      break;
    default:
      break;
  }
}

void freeMemberList(ZelMoAttributeValueStructMember* member) { MoUtils::deleteStructMemberList(&member); }

// Copies one element, writing only the bytes of its type into target. The
// type must be a handled one.
void copySlot(ZelMoAttributeValueTypeT type, const ZelMoAttributeValueData& source,
              ZelMoAttributeValueData& target) {
  switch (type) {
    case ZelMoAttributeValueTypeInt8: target.i8 = source.i8; break;
    case ZelMoAttributeValueTypeInt16: target.i16 = source.i16; break;
    case ZelMoAttributeValueTypeInt32: target.i32 = source.i32; break;
    case ZelMoAttributeValueTypeInt64: target.i64 = source.i64; break;
    case ZelMoAttributeValueTypeUint8: target.u8 = source.u8; break;
    case ZelMoAttributeValueTypeUint16: target.u16 = source.u16; break;
    case ZelMoAttributeValueTypeUint32: target.u32 = source.u32; break;
    case ZelMoAttributeValueTypeUint64: target.u64 = source.u64; break;
    // The boolean's one byte is copied as a byte: a framework written in C
    // may leave any non-zero byte there, which read as a C++ bool would be
    // undefined.
    case ZelMoAttributeValueTypeBool: target.u8 = source.u8; break;
    case ZelMoAttributeValueTypeEnum: target.i16 = lowSixteenBits(source.theEnum); break;
    // Pointer slots are nulled first so that a failed copy leaves nothing
    // for the clean-up to misread.
    case ZelMoAttributeValueTypeString:
      target.theString = nullptr;
      target.theString = MoUtils::copyString(source.theString);
      break;
    case ZelMoAttributeValueTypeReference:
      target.moRef = nullptr;
      target.moRef = MoUtils::copyString(source.moRef);
      break;
    case ZelMoAttributeValueTypeStruct:
      target.structMember = nullptr;
      MoUtils::copyStructMember(source.structMember, &target.structMember);
      break;
    default:
      throwUnsupportedType(type);
  }
}

}  // namespace

char* MoUtils::copyString(const char* source) {
  if (source == nullptr) return nullptr;
  const size_t size = std::strlen(source) + 1;
  char* copy = new char[size];
  std::memcpy(copy, source, size);
  return copy;
}

ZelMoAttributeValueContainer* MoUtils::copyAttributeValueContainer(const ZelMoAttributeValueContainer* source) {
  if (source == nullptr) return nullptr;
  std::unique_ptr<ZelMoAttributeValueContainer> target(new ZelMoAttributeValueContainer);
  target->type = source->type;
  target->count = source->count;
  target->values = nullptr;
  // Default-initialised on purpose: a slot keeps whatever new[] gave it
  // beyond the bytes its element is copied into.
  target->values = new ZelMoAttributeValueData[source->count];
  uint32_t index = 0;
  try {
    for (; index < source->count; ++index) {
      if (!isHandledType(source->type)) throwUnsupportedType(source->type);
      copySlot(source->type, source->values[index], target->values[index]);
    }
  } catch (...) {
    // The caller never sees this copy, so free what it holds so far: the
    // completed slots and the one that failed (its pointer was nulled first,
    // or it holds a well-formed partial member list).
    for (uint32_t i = 0; i <= index && i < source->count; ++i) freeSlot(source->type, target->values[i]);
    delete[] target->values;
    throw;
  }
  return target.release();
}

void MoUtils::copyStructMember(ZelMoAttributeValueStructMember* source, ZelMoAttributeValueStructMember** target) {
  ZelMoAttributeValueStructMember** link = target;
  for (ZelMoAttributeValueStructMember* member = source; member != nullptr; member = member->next) {
    if (member->value->type == ZelMoAttributeValueTypeStruct)
      throw ZelException("Structs within Structs is not supported by ZEL");
    // Value-initialised (all null) before it is linked, so that whatever
    // fails next, the list built so far ends in a null next and holds no
    // stray pointers.
    ZelMoAttributeValueStructMember* copy = new ZelMoAttributeValueStructMember();
    *link = copy;
    copy->name = copyString(member->name);
    copy->value = copyAttributeValueContainer(member->value);
    link = &copy->next;
  }
  if (link != target) *link = nullptr;
}

void MoUtils::deleteAttributeValueContainer(ZelMoAttributeValueContainer** container) {
  if (container == nullptr || *container == nullptr) return;
  ZelMoAttributeValueContainer* doomed = *container;
  for (uint32_t index = 0; index < doomed->count; ++index) {
    if (!isHandledType(doomed->type)) throwUnsupportedType(doomed->type);
    freeSlot(doomed->type, doomed->values[index]);
  }
  if (doomed->values != nullptr) delete[] doomed->values;
  delete doomed;
  *container = nullptr;
}

void MoUtils::deleteStructMemberList(ZelMoAttributeValueStructMember** head) {
  if (head == nullptr) return;
  while (ZelMoAttributeValueStructMember* member = *head) {
    if (member->name != nullptr) {
      delete[] member->name;
      member->name = nullptr;
    }
    deleteAttributeValueContainer(&member->value);
    *head = member->next;
    delete member;
  }
}

}  // namespace Zel
