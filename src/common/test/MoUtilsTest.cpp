// Tests of Zel::MoUtils: deep copies of attribute values and their release.
//
// Sources are built on the stack (the copier never frees or changes them);
// every copy is freed with deleteAttributeValueContainer, so the memcheck run
// of this binary also proves that copies own exactly what they allocate.
// Copied slots are read only through the member the copy wrote: the rest of a
// slot is indeterminate by design.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <zel/MoUtils.h>
#include <zel/ZelException.h>

using Zel::MoUtils;

namespace {

const char* const NESTED_STRUCT_REASON = "Structs within Structs is not supported by ZEL";

std::string unsupportedReason(int type) {
  return "Unsupported State. Attribute value type " + std::to_string(type) +
         " should not appear in NbiNotificationService";
}

// Runs f and returns the ZelException it throws; fails the test if it
// throws nothing or something else.
Zel::ZelException catchZel(const std::function<void()>& f) {
  try {
    f();
  } catch (const Zel::ZelException& e) {
    return e;
  } catch (...) {
    ADD_FAILURE() << "threw something other than Zel::ZelException";
    return Zel::ZelException(std::string("<other exception>"));
  }
  ADD_FAILURE() << "nothing thrown";
  return Zel::ZelException(std::string("<nothing thrown>"));
}

ZelMoAttributeValueTypeT typeNumber(int number) { return static_cast<ZelMoAttributeValueTypeT>(number); }

// A single-element source container on the stack.
struct OneValue {
  ZelMoAttributeValueData slot[1];
  ZelMoAttributeValueContainer container;
  explicit OneValue(ZelMoAttributeValueTypeT type) : container{type, 1, slot} { std::memset(slot, 0, sizeof(slot)); }
};

// --- copyString ---------------------------------------------------------

TEST(MoUtils, CopyStringCopiesTextAndTerminatingNulIntoNewArray) {
  const char source[] = "abc";
  char* copy = MoUtils::copyString(source);
  ASSERT_NE(nullptr, copy);
  EXPECT_NE(source, copy);
  EXPECT_EQ(0, std::memcmp(source, copy, sizeof(source)));
  delete[] copy;
}

TEST(MoUtils, CopyStringOfEmptyStringIsNewEmptyString) {
  char* copy = MoUtils::copyString("");
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ('\0', copy[0]);
  delete[] copy;
}

TEST(MoUtils, CopyStringOfNullIsNull) { EXPECT_EQ(nullptr, MoUtils::copyString(nullptr)); }

// --- null handling --------------------------------------------------------

TEST(MoUtils, NullContainerCopiesToNull) { EXPECT_EQ(nullptr, MoUtils::copyAttributeValueContainer(nullptr)); }

TEST(MoUtils, DeleteThroughPointerToNullDoesNothing) {
  ZelMoAttributeValueContainer* container = nullptr;
  MoUtils::deleteAttributeValueContainer(&container);
  EXPECT_EQ(nullptr, container);
}

TEST(MoUtils, DeleteWithNullArgumentDoesNothing) { MoUtils::deleteAttributeValueContainer(nullptr); }

// --- strings and references ------------------------------------------------

TEST(MoUtils, StringContainerCopiesEachStringAndKeepsNullStrings) {
  char a[] = "a";
  ZelMoAttributeValueData slots[2];
  slots[0].theString = a;
  slots[1].theString = nullptr;
  ZelMoAttributeValueContainer source{ZelMoAttributeValueTypeString, 2, slots};

  ZelMoAttributeValueContainer* copy = MoUtils::copyAttributeValueContainer(&source);
  ASSERT_NE(nullptr, copy);
  EXPECT_NE(&source, copy);
  EXPECT_EQ(ZelMoAttributeValueTypeString, copy->type);
  EXPECT_EQ(2u, copy->count);
  ASSERT_NE(nullptr, copy->values);
  EXPECT_NE(slots, copy->values);
  ASSERT_NE(nullptr, copy->values[0].theString);
  EXPECT_NE(a, copy->values[0].theString);
  EXPECT_STREQ("a", copy->values[0].theString);
  EXPECT_EQ(nullptr, copy->values[1].theString);
  // The source is left as it was.
  EXPECT_EQ(a, slots[0].theString);
  EXPECT_EQ(nullptr, slots[1].theString);
  EXPECT_STREQ("a", a);

  MoUtils::deleteAttributeValueContainer(&copy);
  EXPECT_EQ(nullptr, copy);
}

TEST(MoUtils, ReferenceContainerCopiesLikeStrings) {
  char dn[] = "ManagedElement=1,Equipment=1";
  ZelMoAttributeValueData slots[2];
  slots[0].moRef = nullptr;
  slots[1].moRef = dn;
  ZelMoAttributeValueContainer source{ZelMoAttributeValueTypeReference, 2, slots};

  ZelMoAttributeValueContainer* copy = MoUtils::copyAttributeValueContainer(&source);
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(ZelMoAttributeValueTypeReference, copy->type);
  EXPECT_EQ(nullptr, copy->values[0].moRef);
  ASSERT_NE(nullptr, copy->values[1].moRef);
  EXPECT_NE(dn, copy->values[1].moRef);
  EXPECT_STREQ("ManagedElement=1,Equipment=1", copy->values[1].moRef);
  MoUtils::deleteAttributeValueContainer(&copy);
  EXPECT_EQ(nullptr, copy);
}

// --- plain values ------------------------------------------------------------

TEST(MoUtils, PlainValuesAreCopiedInTheirWidth) {
  OneValue i8(ZelMoAttributeValueTypeInt8), i16(ZelMoAttributeValueTypeInt16), i32(ZelMoAttributeValueTypeInt32),
      i64(ZelMoAttributeValueTypeInt64), u8(ZelMoAttributeValueTypeUint8), u16(ZelMoAttributeValueTypeUint16),
      u32(ZelMoAttributeValueTypeUint32), u64(ZelMoAttributeValueTypeUint64), b(ZelMoAttributeValueTypeBool);
  i8.slot[0].i8 = -5;
  i16.slot[0].i16 = -300;
  i32.slot[0].i32 = -70000;
  i64.slot[0].i64 = std::numeric_limits<int64_t>::min();
  u8.slot[0].u8 = 250;
  u16.slot[0].u16 = 65000;
  u32.slot[0].u32 = 4000000000u;
  u64.slot[0].u64 = std::numeric_limits<uint64_t>::max();
  b.slot[0].theBool = true;

  ZelMoAttributeValueContainer* c = MoUtils::copyAttributeValueContainer(&i8.container);
  EXPECT_EQ(-5, c->values[0].i8);
  MoUtils::deleteAttributeValueContainer(&c);
  c = MoUtils::copyAttributeValueContainer(&i16.container);
  EXPECT_EQ(-300, c->values[0].i16);
  MoUtils::deleteAttributeValueContainer(&c);
  c = MoUtils::copyAttributeValueContainer(&i32.container);
  EXPECT_EQ(-70000, c->values[0].i32);
  MoUtils::deleteAttributeValueContainer(&c);
  c = MoUtils::copyAttributeValueContainer(&i64.container);
  EXPECT_EQ(std::numeric_limits<int64_t>::min(), c->values[0].i64);
  MoUtils::deleteAttributeValueContainer(&c);
  c = MoUtils::copyAttributeValueContainer(&u8.container);
  EXPECT_EQ(250, c->values[0].u8);
  MoUtils::deleteAttributeValueContainer(&c);
  c = MoUtils::copyAttributeValueContainer(&u16.container);
  EXPECT_EQ(65000, c->values[0].u16);
  MoUtils::deleteAttributeValueContainer(&c);
  c = MoUtils::copyAttributeValueContainer(&u32.container);
  EXPECT_EQ(4000000000u, c->values[0].u32);
  MoUtils::deleteAttributeValueContainer(&c);
  c = MoUtils::copyAttributeValueContainer(&u64.container);
  EXPECT_EQ(std::numeric_limits<uint64_t>::max(), c->values[0].u64);
  MoUtils::deleteAttributeValueContainer(&c);
  c = MoUtils::copyAttributeValueContainer(&b.container);
  EXPECT_TRUE(c->values[0].theBool);
  MoUtils::deleteAttributeValueContainer(&c);
  EXPECT_EQ(nullptr, c);
}

TEST(MoUtils, SeveralElementsAreCopiedInOrder) {
  ZelMoAttributeValueData slots[3];
  slots[0].i32 = 7;
  slots[1].i32 = -8;
  slots[2].i32 = 9;
  ZelMoAttributeValueContainer source{ZelMoAttributeValueTypeInt32, 3, slots};
  ZelMoAttributeValueContainer* copy = MoUtils::copyAttributeValueContainer(&source);
  ASSERT_EQ(3u, copy->count);
  EXPECT_EQ(7, copy->values[0].i32);
  EXPECT_EQ(-8, copy->values[1].i32);
  EXPECT_EQ(9, copy->values[2].i32);
  MoUtils::deleteAttributeValueContainer(&copy);
}

TEST(MoUtils, EnumerationKeepsOnlyTheLowSixteenBits) {
  ZelMoAttributeValueData slots[3];
  slots[0].theEnum = 65537;    // 0x00010001
  slots[1].theEnum = 0x18000;  // low half 0x8000, negative as 16 bits
  slots[2].theEnum = -2;
  ZelMoAttributeValueContainer source{ZelMoAttributeValueTypeEnum, 3, slots};

  ZelMoAttributeValueContainer* copy = MoUtils::copyAttributeValueContainer(&source);
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(1, copy->values[0].i16);
  EXPECT_EQ(-32768, copy->values[1].i16);
  EXPECT_EQ(-2, copy->values[2].i16);
  EXPECT_EQ(65537, slots[0].theEnum);

  // A copy of the copy narrows again and yields the same 16 bits.
  ZelMoAttributeValueContainer* second = MoUtils::copyAttributeValueContainer(copy);
  EXPECT_EQ(1, second->values[0].i16);
  EXPECT_EQ(-32768, second->values[1].i16);
  MoUtils::deleteAttributeValueContainer(&second);
  MoUtils::deleteAttributeValueContainer(&copy);
}

TEST(MoUtils, EmptyContainerCopiesToEmptyContainerWithOwnArray) {
  ZelMoAttributeValueContainer source{ZelMoAttributeValueTypeString, 0, nullptr};
  ZelMoAttributeValueContainer* copy = MoUtils::copyAttributeValueContainer(&source);
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(ZelMoAttributeValueTypeString, copy->type);
  EXPECT_EQ(0u, copy->count);
  EXPECT_NE(nullptr, copy->values);  // a zero-length array of its own
  MoUtils::deleteAttributeValueContainer(&copy);
  EXPECT_EQ(nullptr, copy);
}

// --- every type number --------------------------------------------------------

class MoUtilsTypeNumber : public ::testing::TestWithParam<int> {};

bool handled(int type) { return type >= 1 && type <= 14 && type != 13; }

TEST_P(MoUtilsTypeNumber, OneElementCopiesAndDeletesOrIsRejected) {
  const int type = GetParam();
  ZelMoAttributeValueData slot[1];
  std::memset(slot, 0, sizeof(slot));  // null strings, an empty structure, zero numbers
  ZelMoAttributeValueContainer source{typeNumber(type), 1, slot};

  if (handled(type)) {
    ZelMoAttributeValueContainer* copy = MoUtils::copyAttributeValueContainer(&source);
    ASSERT_NE(nullptr, copy);
    EXPECT_EQ(type, static_cast<int>(copy->type));
    EXPECT_EQ(1u, copy->count);
    MoUtils::deleteAttributeValueContainer(&copy);
    EXPECT_EQ(nullptr, copy);
    return;
  }
  Zel::ZelException e = catchZel([&] { MoUtils::copyAttributeValueContainer(&source); });
  EXPECT_EQ(unsupportedReason(type), e.getReason());
  EXPECT_EQ("ZelException(" + unsupportedReason(type) + ")", std::string(e.what()));
  EXPECT_EQ(ZelFailure, e.getReturnCode());
}

TEST_P(MoUtilsTypeNumber, EmptyContainerCopiesAndDeletesWhateverItsType) {
  const int type = GetParam();
  ZelMoAttributeValueContainer source{typeNumber(type), 0, nullptr};
  ZelMoAttributeValueContainer* copy = MoUtils::copyAttributeValueContainer(&source);
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(type, static_cast<int>(copy->type));
  EXPECT_EQ(0u, copy->count);
  MoUtils::deleteAttributeValueContainer(&copy);
  EXPECT_EQ(nullptr, copy);
}

std::string typeName(const ::testing::TestParamInfo<int>& info) {
  return info.param < 0 ? "TypeMinus" + std::to_string(-info.param) : "Type" + std::to_string(info.param);
}

INSTANTIATE_TEST_SUITE_P(AllTypes, MoUtilsTypeNumber, ::testing::Range(-1, 16), typeName);

class MoUtilsUnhandledType : public ::testing::TestWithParam<int> {};

TEST_P(MoUtilsUnhandledType, DeleteRejectsItAndLeavesContainerAlone) {
  const int type = GetParam();
  ZelMoAttributeValueContainer* container =
      new ZelMoAttributeValueContainer{typeNumber(type), 2, new ZelMoAttributeValueData[2]};
  ZelMoAttributeValueContainer* const original = container;
  Zel::ZelException e = catchZel([&] { MoUtils::deleteAttributeValueContainer(&container); });
  EXPECT_EQ(unsupportedReason(type), e.getReason());
  EXPECT_EQ(original, container);
  EXPECT_EQ(type, static_cast<int>(container->type));
  EXPECT_EQ(2u, container->count);
  // Still allocated: with count 0 its type is no longer looked at.
  container->count = 0;
  MoUtils::deleteAttributeValueContainer(&container);
  EXPECT_EQ(nullptr, container);
}

INSTANTIATE_TEST_SUITE_P(Unhandled, MoUtilsUnhandledType, ::testing::Values(-1, 0, 13, 15, 16, 1000), typeName);

TEST(MoUtils, TypeThirteenWithOneElementIsRejectedAndEmptyOneIsNot) {
  ZelMoAttributeValueData slot[1];
  slot[0].u64 = 0;
  ZelMoAttributeValueContainer source{ZelMoAttributeValueTypeReserved13, 1, slot};
  Zel::ZelException e = catchZel([&] { MoUtils::copyAttributeValueContainer(&source); });
  EXPECT_EQ("Unsupported State. Attribute value type 13 should not appear in NbiNotificationService",
            e.getReason());

  source.count = 0;
  ZelMoAttributeValueContainer* copy = MoUtils::copyAttributeValueContainer(&source);
  ASSERT_NE(nullptr, copy);
  MoUtils::deleteAttributeValueContainer(&copy);
  EXPECT_EQ(nullptr, copy);
}

// --- structures -------------------------------------------------------------------

// A structure value on the stack: members "label" (string), "weight" (int32),
// "peer" (reference).
struct ThreeMemberStruct {
  char labelName[6] = "label";
  char weightName[7] = "weight";
  char peerName[5] = "peer";
  char labelText[6] = "hello";
  char peerDn[17] = "ManagedElement=7";
  ZelMoAttributeValueData labelSlot[1];
  ZelMoAttributeValueData weightSlot[1];
  ZelMoAttributeValueData peerSlot[1];
  ZelMoAttributeValueContainer label{ZelMoAttributeValueTypeString, 1, labelSlot};
  ZelMoAttributeValueContainer weight{ZelMoAttributeValueTypeInt32, 1, weightSlot};
  ZelMoAttributeValueContainer peer{ZelMoAttributeValueTypeReference, 1, peerSlot};
  ZelMoAttributeValueStructMember third{peerName, &peer, nullptr};
  ZelMoAttributeValueStructMember second{weightName, &weight, &third};
  ZelMoAttributeValueStructMember first{labelName, &label, &second};

  ThreeMemberStruct() {
    labelSlot[0].theString = labelText;
    weightSlot[0].i32 = 42;
    peerSlot[0].moRef = peerDn;
  }
};

TEST(MoUtils, StructureMembersAreCopiedInOrderAndEndWithNullNext) {
  ThreeMemberStruct s;
  ZelMoAttributeValueStructMember* head = nullptr;
  MoUtils::copyStructMember(&s.first, &head);

  ZelMoAttributeValueStructMember* m = head;
  ASSERT_NE(nullptr, m);
  EXPECT_NE(&s.first, m);
  EXPECT_NE(s.labelName, m->name);
  EXPECT_STREQ("label", m->name);
  ASSERT_NE(nullptr, m->value);
  EXPECT_NE(&s.label, m->value);
  EXPECT_EQ(ZelMoAttributeValueTypeString, m->value->type);
  EXPECT_STREQ("hello", m->value->values[0].theString);
  EXPECT_NE(s.labelText, m->value->values[0].theString);

  m = m->next;
  ASSERT_NE(nullptr, m);
  EXPECT_STREQ("weight", m->name);
  EXPECT_EQ(ZelMoAttributeValueTypeInt32, m->value->type);
  EXPECT_EQ(42, m->value->values[0].i32);

  m = m->next;
  ASSERT_NE(nullptr, m);
  EXPECT_STREQ("peer", m->name);
  EXPECT_EQ(ZelMoAttributeValueTypeReference, m->value->type);
  EXPECT_STREQ("ManagedElement=7", m->value->values[0].moRef);
  EXPECT_EQ(nullptr, m->next);

  // The source list is unchanged.
  EXPECT_EQ(&s.second, s.first.next);
  EXPECT_EQ(&s.third, s.second.next);
  EXPECT_EQ(nullptr, s.third.next);

  MoUtils::deleteStructMemberList(&head);
}

TEST(MoUtils, StructureContainerIsCopiedAndDeletedDeeply) {
  ThreeMemberStruct a;
  ThreeMemberStruct b;
  b.weightSlot[0].i32 = -1;
  ZelMoAttributeValueData slots[3];
  slots[0].structMember = &a.first;
  slots[1].structMember = nullptr;  // an empty structure
  slots[2].structMember = &b.first;
  ZelMoAttributeValueContainer source{ZelMoAttributeValueTypeStruct, 3, slots};

  ZelMoAttributeValueContainer* copy = MoUtils::copyAttributeValueContainer(&source);
  ASSERT_NE(nullptr, copy);
  ASSERT_EQ(3u, copy->count);
  ASSERT_NE(nullptr, copy->values[0].structMember);
  EXPECT_NE(&a.first, copy->values[0].structMember);
  EXPECT_EQ(42, copy->values[0].structMember->next->value->values[0].i32);
  EXPECT_EQ(nullptr, copy->values[1].structMember);
  ASSERT_NE(nullptr, copy->values[2].structMember);
  EXPECT_EQ(-1, copy->values[2].structMember->next->value->values[0].i32);
  EXPECT_EQ(nullptr, copy->values[2].structMember->next->next->next);

  MoUtils::deleteAttributeValueContainer(&copy);
  EXPECT_EQ(nullptr, copy);
}

TEST(MoUtils, CopyStructMemberOfNullLeavesTargetUntouched) {
  ZelMoAttributeValueStructMember sentinel{nullptr, nullptr, nullptr};
  ZelMoAttributeValueStructMember* target = &sentinel;
  MoUtils::copyStructMember(nullptr, &target);
  EXPECT_EQ(&sentinel, target);
}

TEST(MoUtils, NestedStructureThrowsAfterFirstMemberWasCopied) {
  ThreeMemberStruct inner;
  char firstName[] = "first";
  char secondName[] = "second";
  ZelMoAttributeValueData firstSlot[1];
  firstSlot[0].u16 = 7;
  ZelMoAttributeValueContainer firstValue{ZelMoAttributeValueTypeUint16, 1, firstSlot};
  ZelMoAttributeValueData nestedSlot[1];
  nestedSlot[0].structMember = &inner.first;
  ZelMoAttributeValueContainer nestedValue{ZelMoAttributeValueTypeStruct, 1, nestedSlot};
  ZelMoAttributeValueStructMember second{secondName, &nestedValue, nullptr};
  ZelMoAttributeValueStructMember first{firstName, &firstValue, &second};

  ZelMoAttributeValueStructMember* head = nullptr;
  Zel::ZelException e = catchZel([&] { MoUtils::copyStructMember(&first, &head); });
  EXPECT_EQ(NESTED_STRUCT_REASON, e.getReason());
  EXPECT_EQ(ZelFailure, e.getReturnCode());

  // What a caller can rely on: the first member is copied and linked, and
  // the partial list ends there.
  ASSERT_NE(nullptr, head);
  EXPECT_STREQ("first", head->name);
  ASSERT_NE(nullptr, head->value);
  EXPECT_EQ(7, head->value->values[0].u16);
  EXPECT_EQ(nullptr, head->next);

  // The documented clean-up frees it completely (checked by the memcheck run).
  MoUtils::deleteStructMemberList(&head);
  EXPECT_EQ(nullptr, head);
}

TEST(MoUtils, NestedStructureAsFirstMemberLeavesTargetUntouched) {
  char name[] = "only";
  ZelMoAttributeValueData nestedSlot[1];
  nestedSlot[0].structMember = nullptr;
  ZelMoAttributeValueContainer nestedValue{ZelMoAttributeValueTypeStruct, 1, nestedSlot};
  ZelMoAttributeValueStructMember only{name, &nestedValue, nullptr};

  ZelMoAttributeValueStructMember* head = nullptr;
  Zel::ZelException e = catchZel([&] { MoUtils::copyStructMember(&only, &head); });
  EXPECT_EQ(NESTED_STRUCT_REASON, e.getReason());
  EXPECT_EQ(nullptr, head);
}

TEST(MoUtils, UnhandledMemberValueLeavesThatMemberWithNullValue) {
  char okName[] = "ok";
  char badName[] = "bad";
  ZelMoAttributeValueData okSlot[1];
  okSlot[0].i8 = 1;
  ZelMoAttributeValueContainer okValue{ZelMoAttributeValueTypeInt8, 1, okSlot};
  ZelMoAttributeValueData badSlot[1];
  badSlot[0].u64 = 0;
  ZelMoAttributeValueContainer badValue{ZelMoAttributeValueTypeReserved13, 1, badSlot};
  ZelMoAttributeValueStructMember bad{badName, &badValue, nullptr};
  ZelMoAttributeValueStructMember ok{okName, &okValue, &bad};

  ZelMoAttributeValueStructMember* head = nullptr;
  Zel::ZelException e = catchZel([&] { MoUtils::copyStructMember(&ok, &head); });
  EXPECT_EQ(unsupportedReason(13), e.getReason());
  ASSERT_NE(nullptr, head);
  EXPECT_STREQ("ok", head->name);
  ASSERT_NE(nullptr, head->next);
  EXPECT_STREQ("bad", head->next->name);
  EXPECT_EQ(nullptr, head->next->value);
  EXPECT_EQ(nullptr, head->next->next);
  MoUtils::deleteStructMemberList(&head);
}

TEST(MoUtils, ContainerCopyFailingInsideStructureReturnsNothingAndLeaksNothing) {
  // Element 0 copies fine, element 1 holds a structure inside a structure.
  // The copier frees its partial copy itself (the memcheck run shows no
  // leak); the caller has nothing to clean up.
  ThreeMemberStruct fine;
  ThreeMemberStruct inner;
  char name[] = "nested";
  ZelMoAttributeValueData nestedSlot[1];
  nestedSlot[0].structMember = &inner.first;
  ZelMoAttributeValueContainer nestedValue{ZelMoAttributeValueTypeStruct, 1, nestedSlot};
  ZelMoAttributeValueStructMember nested{name, &nestedValue, nullptr};
  ThreeMemberStruct outer;
  outer.third.next = &nested;  // label, weight, peer, then the nested one

  ZelMoAttributeValueData slots[2];
  slots[0].structMember = &fine.first;
  slots[1].structMember = &outer.first;
  ZelMoAttributeValueContainer source{ZelMoAttributeValueTypeStruct, 2, slots};

  ZelMoAttributeValueContainer* copy = nullptr;
  Zel::ZelException e = catchZel([&] { copy = MoUtils::copyAttributeValueContainer(&source); });
  EXPECT_EQ(NESTED_STRUCT_REASON, e.getReason());
  EXPECT_EQ(nullptr, copy);
  EXPECT_EQ(&fine.first, slots[0].structMember);
  EXPECT_EQ(&nested, outer.third.next);
}

TEST(MoUtils, CopyOfCopyIsIndependentOfTheFirstCopy) {
  ThreeMemberStruct s;
  ZelMoAttributeValueData slots[1];
  slots[0].structMember = &s.first;
  ZelMoAttributeValueContainer source{ZelMoAttributeValueTypeStruct, 1, slots};
  ZelMoAttributeValueContainer* first = MoUtils::copyAttributeValueContainer(&source);
  ZelMoAttributeValueContainer* second = MoUtils::copyAttributeValueContainer(first);
  MoUtils::deleteAttributeValueContainer(&first);
  ASSERT_NE(nullptr, second);
  EXPECT_STREQ("label", second->values[0].structMember->name);
  EXPECT_STREQ("hello", second->values[0].structMember->value->values[0].theString);
  MoUtils::deleteAttributeValueContainer(&second);
  EXPECT_EQ(nullptr, second);
}

TEST(MoUtils, BooleanIsCopiedAsItsOneByteWhateverItHolds) {
  // A framework in C may store any non-zero byte as "true".
  ZelMoAttributeValueData slots[2];
  slots[0].u64 = 0;
  slots[0].u8 = 43;
  slots[1].u64 = 0;
  ZelMoAttributeValueContainer source{ZelMoAttributeValueTypeBool, 2, slots};
  ZelMoAttributeValueContainer* copy = MoUtils::copyAttributeValueContainer(&source);
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(43, copy->values[0].u8);
  EXPECT_EQ(0, copy->values[1].u8);
  MoUtils::deleteAttributeValueContainer(&copy);
}

}  // namespace

namespace {

TEST(MoUtils, DeleteStructMemberListFreesEveryMemberAndNullsTheHead) {
  Zel::MoUtils::deleteStructMemberList(nullptr);
  ZelMoAttributeValueStructMember* empty = nullptr;
  Zel::MoUtils::deleteStructMemberList(&empty);
  EXPECT_EQ(nullptr, empty);

  // A two-member list as copyStructMember makes it.
  ZelMoAttributeValueStructMember* head = new ZelMoAttributeValueStructMember();
  head->name = Zel::MoUtils::copyString("first");
  head->next = new ZelMoAttributeValueStructMember();
  head->next->name = Zel::MoUtils::copyString("second");
  Zel::MoUtils::deleteStructMemberList(&head);
  EXPECT_EQ(nullptr, head);  // memcheck and LSan see that nothing is left
}

}  // namespace
