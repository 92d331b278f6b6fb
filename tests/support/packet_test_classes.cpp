#include "support/packet_test_classes.h"

#include <zt/packets.h>

#include <cstddef>

namespace zt::test {

namespace {

constexpr ZTFieldDesc row(uint32_t type, uint32_t tag, const char *name, size_t offset, uint32_t width = 0,
                          uint32_t sub_class = 0, size_t offset2 = 0) {
  return ZTFieldDesc{type, tag, name, width, sub_class, 0, 0, static_cast<uint32_t>(offset),
                     static_cast<uint32_t>(offset2)};
}

int add(uint32_t number, uint32_t size, const ZTFieldDesc *rows, size_t count, const char *name) {
  if (ZTStorageClassExists(number)) return 0;
  const ZTStorageClassDesc desc{number, size, rows, static_cast<uint32_t>(count), name, "", ""};
  return ZTAddStorageClass(&desc, number);
}

}  // namespace

int register_packet_test_classes() {
  using C = ZTTestChild;
  const ZTFieldDesc child[] = {
      row(ZT_FT_UINT32B, 1, "Id", offsetof(C, id)),
      row(ZT_FT_STRING, 2, "Label", offsetof(C, label)),
      row(ZT_FT_DOUBLE, 3, "Value", offsetof(C, value)),
      {}};
  using A = ZTTestAll;
  const ZTFieldDesc all[] = {
      row(ZT_FT_INT32, 1, "Int32", offsetof(A, t1)),
      row(ZT_FT_UINT32, 2, "UInt32", offsetof(A, t2)),
      row(ZT_FT_INT16, 3, "Int16", offsetof(A, t3)),
      row(ZT_FT_INT8, 4, "Int8", offsetof(A, t4)),
      row(ZT_FT_UINT32B, 5, "UInt32b", offsetof(A, t5)),
      row(ZT_FT_UINT16, 6, "UInt16", offsetof(A, t6)),
      row(ZT_FT_UINT8, 7, "UInt8", offsetof(A, t7)),
      row(ZT_FT_DOUBLE, 8, "Double", offsetof(A, t8)),
      row(ZT_FT_STRING, 9, "String", offsetof(A, t9)),
      row(ZT_FT_LIST, 0x11, "ChildList", offsetof(A, t11), 0, ZT_CLASS_TEST_CHILD),
      row(ZT_FT_ITEMS, 0x12, "ChildRun", offsetof(A, t12), 0, ZT_CLASS_TEST_CHILD, offsetof(A, t12_count)),
      row(ZT_FT_UINTW, 0x13, "Width2", offsetof(A, t13), 2),
      row(ZT_FT_PAIR, 0x14, "Pair", offsetof(A, t14a), 0, 0, offsetof(A, t14b)),
      row(ZT_FT_DOUBLE_ARRAY, 0x15, "Doubles", offsetof(A, t15), 0, 0, offsetof(A, t15_count)),
      row(ZT_FT_UINTW_ARRAY, 0x16, "Width2Array", offsetof(A, t16), 2, 0, offsetof(A, t16_count)),
      row(ZT_FT_UINT32_ARRAY, 0x17, "UInt32Array", offsetof(A, t17), 0, 0, offsetof(A, t17_count)),
      row(ZT_FT_UINT16_ARRAY, 0x18, "UInt16Array", offsetof(A, t18), 0, 0, offsetof(A, t18_count)),
      row(ZT_FT_UINT8_ARRAY, 0x19, "UInt8Array", offsetof(A, t19), 0, 0, offsetof(A, t19_count)),
      row(ZT_FT_VALUE20, 0x20, "Value20", offsetof(A, t20)),
      row(ZT_FT_VALUE21, 0x21, "Value21", offsetof(A, t21)),
      row(ZT_FT_BINARY, 0x22, "Binary", offsetof(A, t22), 0, 0, offsetof(A, t22_count)),
      row(ZT_FT_STRING_ARRAY, 0x23, "Strings", offsetof(A, t23), 0, 0, offsetof(A, t23_count)),
      row(ZT_FT_UINT32C, 0x24, "UInt32c", offsetof(A, t24)),
      row(ZT_FT_INT64, 0x25, "Int64", offsetof(A, t25)),
      row(ZT_FT_INT64B, 0x26, "Int64b", offsetof(A, t26)),
      row(ZT_FT_ARRAY27, 0x27, "Array27", offsetof(A, t27), 0, 0, offsetof(A, t27_count)),
      row(ZT_FT_VALUE28, 0x28, "Value28", offsetof(A, t28)),
      row(ZT_FT_VALUE29, 0x29, "Value29", offsetof(A, t29)),
      row(ZT_FT_ARRAY30, 0x30, "Array30", offsetof(A, t30), 0, 0, offsetof(A, t30_count)),
      row(ZT_FT_ARRAY31, 0x31, "Array31", offsetof(A, t31), 0, 0, offsetof(A, t31_count)),
      {}};
  using R = ZTTestRecord;
  const ZTFieldDesc record[] = {
      row(ZT_FT_UINT32B, 1, "JobNumber", offsetof(R, job_number)),
      row(ZT_FT_STRING, 2, "Name", offsetof(R, name)),
      row(ZT_FT_STRING, 3, "Owner", offsetof(R, owner)),
      row(ZT_FT_STRING, 4, "Media", offsetof(R, media)),
      row(ZT_FT_INT32, 5, "Copies", offsetof(R, copies)),
      row(ZT_FT_UINT16, 6, "Priority", offsetof(R, priority)),
      row(ZT_FT_UINT8, 7, "State", offsetof(R, state)),
      row(ZT_FT_DOUBLE, 8, "WidthMM", offsetof(R, width_mm)),
      row(ZT_FT_DOUBLE, 9, "HeightMM", offsetof(R, height_mm)),
      row(ZT_FT_INT64, 0xa, "Submitted", offsetof(R, submitted)),
      row(ZT_FT_UINT32_ARRAY, 0xb, "InkLimits", offsetof(R, ink_limits), 0, 0, offsetof(R, ink_count)),
      {}};
  // Children first: the others refer to them.
  if (add(ZT_CLASS_TEST_CHILD, sizeof(C), child, sizeof child / sizeof child[0], "TestChild") != 0) return -1;
  if (add(ZT_CLASS_TEST_ALL, sizeof(A), all, sizeof all / sizeof all[0], "TestAll") != 0) return -1;
  return add(ZT_CLASS_TEST_RECORD, sizeof(R), record, sizeof record / sizeof record[0], "TestRecord");
}

}  // namespace zt::test
