// MoUtils.h - deep copies of managed-object attribute values, and their release.
//
// A component that must keep an attribute value beyond the call that handed it
// over (the northbound notification service is the case in point) copies it
// with copyAttributeValueContainer and later frees the copy with
// deleteAttributeValueContainer. The source is never modified.
//
// Ownership: a copy owns all of its memory. Strings and value arrays are
// allocated with new[], containers and structure members with new, and
// deleteAttributeValueContainer releases them with the matching delete[] /
// delete; never free a copy's parts with free() or hand them to the framework's
// own release functions.
//
// Value types handled (ZelMoAttributeValueTypeT): the integers 1 to 8, strings
// (9), booleans (10), references (11), enumerations (12) and structures (14).
// Types 0, 13 and above 14 are rejected with a Zel::ZelException whose reason
// reads "Unsupported State. Attribute value type <n> should not appear in
// NbiNotificationService". A structure member whose value is itself a
// structure is rejected with "Structs within Structs is not supported by ZEL".
// Nothing is logged; a failed allocation lets std::bad_alloc pass out.
//
// Threads: static functions without shared state, so reentrant. A value must
// not be copied while another thread frees or changes it.
#ifndef ZEL_MO_UTILS_H
#define ZEL_MO_UTILS_H

#include <zel/ZelExport.h>
#include <zel/ZelMoAttributeValue.h>

namespace Zel {

class ZEL_API MoUtils {
 public:
  // A new[] array holding source and its terminating NUL; nullptr for nullptr.
  //   "abc" -> new "abc"      "" -> new ""      nullptr -> nullptr
  static char* copyString(const char* source);

  // A new deep copy of source; nullptr when source is nullptr.
  //
  // Each element is copied in the width of its type and only those bytes of
  // the new slot are written; the rest of the slot is left as new[] gave it
  // (indeterminate). Enumerations (12) are deliberately narrowed: the copy
  // holds the low 16 bits of the source's theEnum in its i16 member, so
  // 65537 copies as 1. Read a copied enumeration through i16, never theEnum.
  //
  // A container whose count is 0 is copied without looking at its type (an
  // empty container of an unhandled type copies fine, with a zero-length
  // value array). Otherwise an unhandled type throws the unsupported-type
  // ZelException before anything is copied.
  //
  // Preconditions: values holds count slots; for structures every member has
  // a non-null value.
  //
  // On any exception (an unhandled type, a structure inside a structure, an
  // unhandled type deeper in a structure, bad_alloc) everything this call
  // allocated so far is freed again before the exception passes on: the
  // caller gets nothing and owns nothing.
  static ZelMoAttributeValueContainer* copyAttributeValueContainer(const ZelMoAttributeValueContainer* source);

  // Copies the whole member list starting at source, in order, and stores the
  // head of the copy in *target; the last copied member's next is nullptr.
  // With source nullptr, *target is left untouched.
  //
  // Throws "Structs within Structs is not supported by ZEL" when a member's
  // value has type 14, and passes on the exceptions of copying a member's
  // value. The member's value pointer must not be null (it is read without a
  // check); target must not be null.
  //
  // Partial copy on failure: the members copied before the failing one stay
  // allocated and linked from *target. They form a well-formed list: each
  // member is allocated zeroed before it is linked, so the last one's next is
  // nullptr, and a member whose own copy failed has a nullptr name and/or
  // value. If the very first member fails, *target is not written. Treat the
  // partial copy as lost, but free it. Safe clean-up, given that *target was
  // set to nullptr before the call:
  //
  //   ZelMoAttributeValueStructMember* head = nullptr;
  //   try {
  //     MoUtils::copyStructMember(source, &head);
  //   } catch (const Zel::ZelException&) {
  //     MoUtils::deleteStructMemberList(&head);
  //     throw;
  //   }
  //
  // (copyAttributeValueContainer does exactly this for the structures it
  // copies.)
  static void copyStructMember(ZelMoAttributeValueStructMember* source, ZelMoAttributeValueStructMember** target);

  // Frees *container deeply (strings, member lists with their names and
  // values, the value array, the container) and sets *container to nullptr.
  // Does nothing when container or *container is nullptr.
  //
  // Only for values allocated the way copies are (see above). An unhandled
  // type with count > 0 throws the unsupported-type ZelException; the
  // container is then left allocated and *container unchanged. A container
  // with count 0 is freed without looking at its type.
  static void deleteAttributeValueContainer(ZelMoAttributeValueContainer** container);

  // Frees a member list made by copyStructMember, complete or partial (each
  // member's name, its value with deleteAttributeValueContainer, the member),
  // and sets *head to nullptr. Does nothing when head or *head is nullptr.
  // Passes on deleteAttributeValueContainer's unsupported-type exception; the
  // members not yet freed then stay linked from *head.
  static void deleteStructMemberList(ZelMoAttributeValueStructMember** head);
};

}  // namespace Zel

#endif  // ZEL_MO_UTILS_H
