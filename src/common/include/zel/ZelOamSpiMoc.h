// ZelOamSpiMoc.h - the model repository's managed-object class records, as far
// as libzel_common reads them.
//
// The framework's model repository describes every managed-object class (MOC)
// with a ZelOamSpiMoc record and every "class C may be contained in class P"
// relation with a ZelOamSpiMocContainment record. The records belong to the
// repository: the library only reads them (Zel::DnUtil::checkDnChain) and never
// modifies or frees them. The caller keeps them alive and unchanged while a
// call reads them; no locking is done here.
//
// Only the members the library reads are named. The bytes in between belong
// to the repository's own declaration and are kept as opaque reserved space so
// that the 64-bit layout matches it; the offsets are pinned below.
#ifndef ZEL_OAM_SPI_MOC_H
#define ZEL_OAM_SPI_MOC_H

#include <cstddef>

extern "C" {

struct ZelOamSpiMocContainment;

// One managed-object class.
struct ZelOamSpiMoc {
  // The class name, NUL-terminated, e.g. "ManagedElement". Compared exactly
  // (case-sensitive) with the class names of a DN.
  const char* name;
  unsigned char _reserved1[80];  // members the library does not read
  // First containment record in which this class is the child, i.e. the head
  // of the list of its possible parents. Null for a root class.
  ZelOamSpiMocContainment* childContainment;
};

// One permitted parent of a class. The records of the same child are chained
// through nextContainmentSameChild.
struct ZelOamSpiMocContainment {
  unsigned char _reserved1[48];  // members the library does not read
  // The containing (parent) class; may be null.
  ZelOamSpiMoc* parentMoc;
  unsigned char _reserved2[24];  // members the library does not read
  // Next possible parent of the same child; null at the end of the list.
  ZelOamSpiMocContainment* nextContainmentSameChild;
};

}  // extern "C"

static_assert(offsetof(ZelOamSpiMoc, name) == 0, "MOC record layout");
static_assert(offsetof(ZelOamSpiMoc, childContainment) == 88, "MOC record layout");
static_assert(offsetof(ZelOamSpiMocContainment, parentMoc) == 48, "containment record layout");
static_assert(offsetof(ZelOamSpiMocContainment, nextContainmentSameChild) == 80,
              "containment record layout");

#endif  // ZEL_OAM_SPI_MOC_H
