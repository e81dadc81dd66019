// dn.cpp - build distinguished names, check them, take them apart, and check
// them against a containment model.
//
//   ./example_dn
//
// A DN lists relative DNs root first: "ManagedElement=1,Equipment=1". Check
// user input with DnUtil::isValidDn (one linear pass); do not run the
// exported REGEXP_FOR_3GPP_DN through a backtracking regex engine, which can
// take exponential time on it.
#include <cstdio>
#include <string>

#include <zel/DnUtil.h>
#include <zel/ZelOamSpiMoc.h>

using Zel::DnUtil;

int main() {
  // Building: the key is left out of the RDN when it is named "<Class>id" or
  // "id" (any case), and written as "Class.key" otherwise.
  std::string equipment, slot;
  DnUtil::getDn("ManagedElement=1", "Equipment", "equipmentId", "1", equipment);
  DnUtil::getDn(equipment.c_str(), "Slot", "position", "3", slot);
  std::printf("built     %s\n", slot.c_str());  // ManagedElement=1,Equipment=1,Slot.position=3

  // Checking input.
  const char* candidates[] = {slot.c_str(), "ManagedElement=1, Equipment = 2", "", "managedElement=1", "A=1,"};
  for (const char* dn : candidates) std::printf("%-9s '%s'\n", DnUtil::isValidDn(dn) ? "valid" : "invalid", dn);

  // Taking apart.
  std::printf("class     %s\n", DnUtil::getClass(slot).c_str());      // Slot
  std::printf("id        %s\n", DnUtil::getId(slot).c_str());         // 3
  std::printf("parent    %s\n", DnUtil::getParentDn(slot).c_str());   // ManagedElement=1,Equipment=1
  std::string rest = slot, leafClass;
  while (DnUtil::popLeafClass(rest, leafClass)) std::printf("leaf      %s\n", leafClass.c_str());

  // A model from the repository: ManagedElement (root) contains Equipment,
  // which contains Slot. The repository owns such records; here they are
  // plain statics.
  static ZelOamSpiMoc managedElementMoc = {"ManagedElement", {}, nullptr};
  static ZelOamSpiMoc equipmentMoc = {"Equipment", {}, nullptr};
  static ZelOamSpiMocContainment equipmentInManagedElement = {{}, &managedElementMoc, {}, nullptr};
  static ZelOamSpiMocContainment slotInEquipment = {{}, &equipmentMoc, {}, nullptr};
  static ZelOamSpiMoc slotMoc = {"Slot", {}, &slotInEquipment};
  equipmentMoc.childContainment = &equipmentInManagedElement;

  // checkDnChain(parent DN, class of the new object): 0 the parent chain
  // fits the model, 1 it does not, 2 the DN runs out before the root.
  std::printf("Slot under '%s': %d\n", equipment.c_str(), DnUtil::checkDnChain(equipment.c_str(), &slotMoc));  // 0
  std::printf("Slot under 'ManagedElement=1': %d\n", DnUtil::checkDnChain("ManagedElement=1", &slotMoc));    // 1
  std::printf("Slot under '': %d\n", DnUtil::checkDnChain("", &slotMoc));                                     // 2
  std::printf("ManagedElement under '': %d\n", DnUtil::checkDnChain("", &managedElementMoc));                 // 0
  return 0;
}
