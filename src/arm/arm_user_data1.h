#pragma once

#include <cstddef>

#include "arm.h"
#include "arm/TArmMessage.h"
#include "arm/TArmReplyMessage.h"

// The caller's data blocks.  The library reads them byte by byte through the functions below, since
// a caller's block may lie at any address; the structures are those of the public header.
//
// Format 1, 256 bytes:
//
// | offset | size | field      | meaning                                                     |
// |--------|------|------------|-------------------------------------------------------------|
// | 0      | 4    | format     | 1                                                           |
// | 4      | 4    | flags      | flags[0]: 0x80 parent correlator, 0x40 requested, 0x20 returned |
// | 8      | 48   | metric     | passed through                                              |
// | 56     | 32   | string32   | passed through                                              |
// | 88     | 168  | correlator | in: the parent's, out: the new one; byte 109 bit 0x01 = ignore |
static_assert(sizeof(arm_user_data1_t) == ARM_FORMAT1_SIZE);
static_assert(offsetof(arm_user_data1_t, format) == 0);
static_assert(offsetof(arm_user_data1_t, flags) == 4);
static_assert(offsetof(arm_user_data1_t, metric) == 8);
static_assert(offsetof(arm_user_data1_t, string32) == 56);
static_assert(offsetof(arm_user_data1_t, correlator) == 88);

// Format 2, 1024 bytes: | 0 | 4 | format, 2 |  and  | 4 | 1020 | data, opaque |
static_assert(sizeof(arm_user_data2_t) == ARM_FORMAT2_SIZE);
static_assert(offsetof(arm_user_data2_t, format) == 0);
static_assert(offsetof(arm_user_data2_t, data) == 4);

// Format 101, 344 bytes: | 0 | 4 | format, 101 |, | 4 | 4 | flags | and seven 48-byte descriptions,
// each a 4-byte type and a 44-byte name.
static_assert(sizeof(arm_user_data101_t) == ARM_FORMAT101_SIZE);
static_assert(offsetof(arm_user_data101_t, format) == 0);
static_assert(offsetof(arm_user_data101_t, flags) == 4);
static_assert(offsetof(arm_user_data101_t, metric) == 8);
static_assert(sizeof(arm_metric_description_t) == 48);
static_assert(offsetof(arm_metric_description_t, type) == 0);
static_assert(offsetof(arm_metric_description_t, name) == 4);

static_assert(sizeof(arm_correlator_t) == ARM_CORRELATOR_FIELD);
static_assert(sizeof(arm_metric_t) == 8);

/// True when a block is given and its format word is the given one.
bool blockHasFormat(const void* block, int32_t format);

/// True when a block is given and flags[0] asks for a correlator (bit 0x40); whatever its format.
bool CorrelatorRequested(const arm_user_data1_t* block);

/// True when a block is given, carries a parent correlator (bit 0x80), and that parent is marked to
/// be ignored (byte 197, bit 0x01); whatever its format.
bool parentIsIgnored(const void* block);

/// Sets bit 0x20 of flags[0] when bit 0x40 is set, else inverts it.
void markIgnoredBlock(void* block);

/// Hands the reply's correlator back: when a block is given, asks for one and the reply carries
/// one, sets bit 0x20 of flags[0] and copies the 168 bytes to offset 88.  Otherwise changes
/// nothing.
void returnCorrelator(void* block, const TArmReplyMessage& reply);
