// ZelMoAttributeValue.h - managed-object attribute values as the framework's
// management interfaces pass them.
//
// A value is a ZelMoAttributeValueContainer: one value type for all elements,
// an element count, and an array of 8-byte slots (ZelMoAttributeValueData), one
// per element. A structure-typed element points to a singly linked list of
// ZelMoAttributeValueStructMember records, each naming one member and holding
// its value in a container of its own.
//
// The records belong to whoever built them: to the framework for the values it
// hands over, to the library for the deep copies Zel::MoUtils makes (which must
// be freed by MoUtils::deleteAttributeValueContainer). They are plain data with
// no locking.
#ifndef ZEL_MO_ATTRIBUTE_VALUE_H
#define ZEL_MO_ATTRIBUTE_VALUE_H

#include <cstddef>
#include <cstdint>

extern "C" {

// The value type of every element of a container. The numbers are fixed by
// the framework; 0, 13 and anything above 14 are not handled by the library.
enum ZelMoAttributeValueTypeT : int32_t {
  ZelMoAttributeValueTypeInt8 = 1,
  ZelMoAttributeValueTypeInt16 = 2,
  ZelMoAttributeValueTypeInt32 = 3,
  ZelMoAttributeValueTypeInt64 = 4,
  ZelMoAttributeValueTypeUint8 = 5,
  ZelMoAttributeValueTypeUint16 = 6,
  ZelMoAttributeValueTypeUint32 = 7,
  ZelMoAttributeValueTypeUint64 = 8,
  ZelMoAttributeValueTypeString = 9,
  ZelMoAttributeValueTypeBool = 10,
  ZelMoAttributeValueTypeReference = 11,
  ZelMoAttributeValueTypeEnum = 12,
  ZelMoAttributeValueTypeReserved13 = 13,  // not handled by the library, rejected like 0
  ZelMoAttributeValueTypeStruct = 14
};

struct ZelMoAttributeValueStructMember;

// One 8-byte element slot; the container's type says which member is valid.
union ZelMoAttributeValueData {
  int8_t i8;      // type 1
  int16_t i16;    // type 2; also where a library copy keeps an enumeration (type 12)
  int32_t i32;    // type 3
  int64_t i64;    // type 4
  uint8_t u8;     // type 5
  uint16_t u16;   // type 6
  uint32_t u32;   // type 7
  uint64_t u64;   // type 8
  char* theString;  // type 9, NUL-terminated, may be null
  bool theBool;     // type 10
  char* moRef;      // type 11, a reference to a managed object as text, may be null
  int32_t theEnum;  // type 12 as the framework fills it; a copy holds only the low 16 bits, in i16
  ZelMoAttributeValueStructMember* structMember;  // type 14, first member or null
};

// An attribute value: count elements of one type, in an array of slots.
struct ZelMoAttributeValueContainer {
  ZelMoAttributeValueTypeT type;    // type of every element; says which slot member is valid
  uint32_t count;                   // number of slots in values
  ZelMoAttributeValueData* values;  // count slots
};

// One member of a structure value; the members of a structure form a list.
struct ZelMoAttributeValueStructMember {
  char* name;                               // NUL-terminated
  ZelMoAttributeValueContainer* value;      // the member's value
  ZelMoAttributeValueStructMember* next;    // null at the end of the list
};

}  // extern "C"

static_assert(sizeof(ZelMoAttributeValueTypeT) == 4, "value type is a 32-bit enumeration");
static_assert(sizeof(ZelMoAttributeValueData) == 8, "value slots are 8 bytes");
static_assert(offsetof(ZelMoAttributeValueContainer, type) == 0, "container layout");
static_assert(offsetof(ZelMoAttributeValueContainer, count) == 4, "container layout");
static_assert(offsetof(ZelMoAttributeValueContainer, values) == 8, "container layout");
static_assert(sizeof(ZelMoAttributeValueContainer) == 16, "container layout");
static_assert(offsetof(ZelMoAttributeValueStructMember, name) == 0, "struct member layout");
static_assert(offsetof(ZelMoAttributeValueStructMember, value) == 8, "struct member layout");
static_assert(offsetof(ZelMoAttributeValueStructMember, next) == 16, "struct member layout");
static_assert(sizeof(ZelMoAttributeValueStructMember) == 24, "struct member layout");

#endif  // ZEL_MO_ATTRIBUTE_VALUE_H
