// Storage classes for the packet tests, fuzz targets and benchmarks: records
// that between them use every field type. They are not part of the library;
// a program registers them after ZT_InitSubSystems with
// zt::test::register_packet_test_classes() (linked from the static library
// zt_packet_test_classes).
#pragma once

#include <zt/lists.h>
#include <zt/packets.h>

#include <stdint.h>

#define ZT_CLASS_TEST_CHILD 100u
#define ZT_CLASS_TEST_ALL 101u
#define ZT_CLASS_TEST_RECORD 102u

// Class 100 "TestChild": nested by the others (lists, runs).
typedef struct ZTTestChild {
  ZTListNode node;
  uint32_t id;  /* tag 1, ZT_FT_UINT32B */
  char *label;  /* tag 2, ZT_FT_STRING */
  double value; /* tag 3, ZT_FT_DOUBLE */
} ZTTestChild;

// Class 101 "TestAll": one field of every encodable type; field tN has type N.
typedef struct ZTTestAll {
  ZTListNode node;
  int32_t t1;
  uint32_t t2;
  int16_t t3;
  int8_t t4;
  uint32_t t5;
  uint16_t t6;
  uint8_t t7;
  double t8;
  char *t9;
  ZTListNode *t11;      /* list of TestChild */
  ZTTestChild *t12;     /* run of TestChild, count t12_count */
  uint32_t t12_count;
  uint16_t t13;         /* width 2 */
  uint32_t t14a, t14b;
  double *t15;
  uint32_t t15_count;
  uint16_t *t16;        /* width 2 */
  uint32_t t16_count;
  uint32_t *t17;
  uint32_t t17_count;
  uint16_t *t18;
  uint32_t t18_count;
  uint8_t *t19;
  uint32_t t19_count;
  uint32_t t20, t21;
  uint8_t *t22;
  uint32_t t22_count;
  char **t23;
  uint32_t t23_count;
  uint32_t t24;
  int64_t t25, t26;
  uint32_t *t27;
  uint32_t t27_count;
  uint32_t t28, t29;
  uint32_t *t30;
  uint32_t t30_count;
  uint32_t *t31;
  uint32_t t31_count;
} ZTTestAll;

// Class 102 "TestRecord": a job-like record used by the benchmarks.
typedef struct ZTTestRecord {
  ZTListNode node;
  uint32_t job_number;  /* tag 1 */
  char *name;           /* tag 2 */
  char *owner;          /* tag 3 */
  char *media;          /* tag 4 */
  int32_t copies;       /* tag 5 */
  uint16_t priority;    /* tag 6 */
  uint8_t state;        /* tag 7 */
  double width_mm;      /* tag 8 */
  double height_mm;     /* tag 9 */
  int64_t submitted;    /* tag a */
  uint32_t *ink_limits; /* tag b, count ink_count */
  uint32_t ink_count;
} ZTTestRecord;

namespace zt::test {

// Adds classes 100 to 102 to the current registry unless they are there
// already (so it may run once per start-up). 0, or -1 when the library
// refused one (logged by the library).
int register_packet_test_classes();

}  // namespace zt::test
