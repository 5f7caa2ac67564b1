#pragma once

#include <cstddef>
#include <cstdint>

#include "ipc/TIPCIdentifier.h"

// The request record.  All integers are little-endian and 32 bits wide; offsets are from the start
// of the record.  Bytes that a type's body does not name carry no meaning; this library sends
// zeros.
//
// | offset | size | field     | meaning                                    |
// |--------|------|-----------|--------------------------------------------|
// | 0      | 8    | sender_id | TIPCIdentifier that the reply is addressed to |
// | 8      | 4    | msg_type  | TArmMessageType                            |
// | 12     | 4104 | messages  | the body of the type, see below            |

/// Message types; 7 to 14 are never sent by this library.
enum TArmMessageType : int32_t {
  ARM_MSG_INIT = 1,
  ARM_MSG_GETID = 2,
  ARM_MSG_START = 3,
  ARM_MSG_UPDATE = 4,
  ARM_MSG_STOP = 5,
  ARM_MSG_END = 6,
  ARM_MSG_COMPLETE_TRANS = 15,
  ARM_MSG_TRANS_REPORT = 16,
  ARM_MSG_TRANS_INSTANCE_REPORT = 17,
  ARM_MSG_COMPLETE_TRANS_INSTANCE = 18,
  ARM_MSG_ASSOCIATE_METRIC_DATA = 19
};

inline constexpr std::size_t ARM_APPL_NAME_FIELD = 128;
inline constexpr std::size_t ARM_TRAN_NAME_FIELD = 3620;
inline constexpr std::size_t ARM_TRAN_DETAIL_FIELD = 128;
inline constexpr std::size_t ARM_FORMAT1_SIZE = 256;
inline constexpr std::size_t ARM_FORMAT2_SIZE = 1024;
inline constexpr std::size_t ARM_FORMAT101_SIZE = 344;
inline constexpr std::size_t ARM_METRIC_DATA_FIELD = 4096;

/// Seconds since the epoch and nanoseconds, as KelpBestGetCurrentTime gives them.
struct TArmTimeStamp {
  uint32_t seconds;
  uint32_t nanoseconds;
};

static_assert(sizeof(TArmTimeStamp) == 8);
static_assert(offsetof(TArmTimeStamp, seconds) == 0);
static_assert(offsetof(TArmTimeStamp, nanoseconds) == 4);

/// Body of ARM_MSG_INIT.
///
/// | offset | size | field        | meaning                        |
/// |--------|------|--------------|--------------------------------|
/// | 12     | 128  | appl_name    | application name; byte 139 is 0 |
/// | 140    | 128  | appl_user_id | user name; byte 267 is 0       |
/// | 268    | 4    | flags        | the caller's flags             |
/// | 272    | 4    | data         | always 0                       |
/// | 276    | 4    | data_size    | always 0                       |
struct TArmInitBody {
  char appl_name[ARM_APPL_NAME_FIELD];
  char appl_user_id[ARM_APPL_NAME_FIELD];
  int32_t flags;
  int32_t data;
  int32_t data_size;
};

/// Body of ARM_MSG_GETID; it ends exactly at the end of the record.
///
/// | offset | size | field       | meaning                                              |
/// |--------|------|-------------|------------------------------------------------------|
/// | 12     | 4    | appl_id     | application id                                       |
/// | 16     | 3620 | tran_name   | transaction-class name; byte 3635 is 0               |
/// | 3636   | 128  | tran_detail | transaction-class detail; byte 3763 is 0             |
/// | 3764   | 4    | flags       | always 0                                             |
/// | 3768   | 344  | data        | format-101 block, present when data_size is positive |
/// | 4112   | 4    | data_size   | the caller's size; 0 without a format-101 block      |
struct TArmGetidBody {
  int32_t appl_id;
  char tran_name[ARM_TRAN_NAME_FIELD];
  char tran_detail[ARM_TRAN_DETAIL_FIELD];
  int32_t flags;
  uint8_t data[ARM_FORMAT101_SIZE];
  int32_t data_size;
};

/// Body of ARM_MSG_START.
///
/// | offset | size | field     | meaning                                            |
/// |--------|------|-----------|----------------------------------------------------|
/// | 12     | 4    | tran_id   | transaction-class id                               |
/// | 16     | 4    | flags     | always 0                                           |
/// | 20     | 256  | data      | format-1 block, present when data_size is positive |
/// | 276    | 4    | data_size | the caller's size; 0 without a format-1 block      |
/// | 280    | 8    | time      | start time                                         |
struct TArmStartBody {
  int32_t tran_id;
  int32_t flags;
  uint8_t data[ARM_FORMAT1_SIZE];
  int32_t data_size;
  TArmTimeStamp time;
};

/// Body of ARM_MSG_UPDATE.
///
/// | offset | size | field        | meaning                                              |
/// |--------|------|--------------|------------------------------------------------------|
/// | 12     | 4    | start_handle | handle returned by start                             |
/// | 16     | 4    | flags        | the caller's flags                                   |
/// | 20     | 1024 | data         | 256 bytes of a format-1 or 1024 of a format-2 block  |
/// | 1044   | 4    | data_size    | the caller's size with a block of format 1 or 2, else 0 |
/// | 1048   | 8    | time         | update time                                          |
struct TArmUpdateBody {
  int32_t start_handle;
  int32_t flags;
  uint8_t data[ARM_FORMAT2_SIZE];
  int32_t data_size;
  TArmTimeStamp time;
};

/// Body of ARM_MSG_STOP.
///
/// | offset | size | field        | meaning                                               |
/// |--------|------|--------------|-------------------------------------------------------|
/// | 12     | 4    | start_handle | handle returned by start                              |
/// | 16     | 4    | comp_status  | the caller's completion status                        |
/// | 20     | 4    | flags        | the caller's flags                                    |
/// | 24     | 256  | data         | block of any format, present when data_size is positive |
/// | 280    | 4    | data_size    | the caller's size; 0 without a block                  |
/// | 284    | 8    | time         | stop time                                             |
struct TArmStopBody {
  int32_t start_handle;
  int32_t comp_status;
  int32_t flags;
  uint8_t data[ARM_FORMAT1_SIZE];
  int32_t data_size;
  TArmTimeStamp time;
};

/// Body of ARM_MSG_END.
///
/// | offset | size | field     | meaning        |
/// |--------|------|-----------|----------------|
/// | 12     | 4    | appl_id   | application id |
/// | 16     | 4    | flags     | always 0       |
/// | 20     | 4    | data      | always 0       |
/// | 24     | 4    | data_size | always 0       |
struct TArmEndBody {
  int32_t appl_id;
  int32_t flags;
  int32_t data;
  int32_t data_size;
};

/// Body of ARM_MSG_COMPLETE_TRANS and ARM_MSG_COMPLETE_TRANS_INSTANCE.
///
/// | offset | size | field           | meaning                              |
/// |--------|------|-----------------|--------------------------------------|
/// | 12     | 4    | tran_handle     | first argument of the call, not negative |
/// | 16     | 4    | complete_value1 | second argument, not negative        |
/// | 20     | 4    | complete_value2 | third argument                       |
/// | 24     | 8    | time            | time of the call                     |
struct TArmCompleteBody {
  int32_t tran_handle;
  int32_t complete_value1;
  int32_t complete_value2;
  TArmTimeStamp time;
};

/// Body of ARM_MSG_TRANS_REPORT and ARM_MSG_TRANS_INSTANCE_REPORT.
///
/// | offset | size | field         | meaning                                            |
/// |--------|------|---------------|----------------------------------------------------|
/// | 12     | 4    | tran_handle   | first argument of the call, not negative           |
/// | 16     | 4    | report_value1 | sixth argument, not negative                       |
/// | 20     | 4    | report_value2 | seventh argument, not negative                     |
/// | 24     | 4    | report_value3 | eighth argument                                    |
/// | 28     | 4    | reserved      | always 0                                           |
/// | 32     | 256  | data          | format-1 block, present when data_size is positive |
/// | 288    | 4    | data_size     | the caller's size; 0 without a format-1 block      |
/// | 292    | 8    | time          | time of the call, 0 when no time stamp was asked for |
struct TArmReportBody {
  int32_t tran_handle;
  int32_t report_value1;
  int32_t report_value2;
  int32_t report_value3;
  int32_t reserved;
  uint8_t data[ARM_FORMAT1_SIZE];
  int32_t data_size;
  TArmTimeStamp time;
};

/// Body of ARM_MSG_ASSOCIATE_METRIC_DATA, the largest: it fills the record to its last byte.
///
/// | offset | size   | field       | meaning                    |
/// |--------|--------|-------------|----------------------------|
/// | 12     | 4      | tran_handle | first argument of the call |
/// | 16     | 4      | length      | 1 to 4096                  |
/// | 20     | length | metric_data | the caller's bytes         |
struct TArmMetricDataBody {
  int32_t tran_handle;
  int32_t length;
  uint8_t metric_data[ARM_METRIC_DATA_FIELD];
};

/// The bodies, all beginning at byte 12 of the record.
union TArmMessageBody {
  TArmInitBody init;
  TArmGetidBody getid;
  TArmStartBody start;
  TArmUpdateBody update;
  TArmStopBody stop;
  TArmEndBody end;
  TArmCompleteBody complete;
  TArmReportBody report;
  TArmMetricDataBody metric_data;
};

/// One request, 4116 bytes.
struct TArmMessage {
  TIPCIdentifier sender_id;
  int32_t msg_type;
  TArmMessageBody messages;
};

static_assert(sizeof(TArmMessage) == 4116);
static_assert(sizeof(TArmMessageBody) == 4104);
static_assert(offsetof(TArmMessage, sender_id) == 0);
static_assert(offsetof(TArmMessage, msg_type) == 8);
static_assert(offsetof(TArmMessage, messages) == 12);

// Offsets within a body: the record's offset less 12.
static_assert(sizeof(TArmInitBody) == 268);
static_assert(offsetof(TArmInitBody, appl_name) == 12 - 12);
static_assert(offsetof(TArmInitBody, appl_user_id) == 140 - 12);
static_assert(offsetof(TArmInitBody, flags) == 268 - 12);
static_assert(offsetof(TArmInitBody, data) == 272 - 12);
static_assert(offsetof(TArmInitBody, data_size) == 276 - 12);

static_assert(sizeof(TArmGetidBody) == 4104);
static_assert(offsetof(TArmGetidBody, appl_id) == 12 - 12);
static_assert(offsetof(TArmGetidBody, tran_name) == 16 - 12);
static_assert(offsetof(TArmGetidBody, tran_detail) == 3636 - 12);
static_assert(offsetof(TArmGetidBody, flags) == 3764 - 12);
static_assert(offsetof(TArmGetidBody, data) == 3768 - 12);
static_assert(offsetof(TArmGetidBody, data_size) == 4112 - 12);

static_assert(sizeof(TArmStartBody) == 276);
static_assert(offsetof(TArmStartBody, tran_id) == 12 - 12);
static_assert(offsetof(TArmStartBody, flags) == 16 - 12);
static_assert(offsetof(TArmStartBody, data) == 20 - 12);
static_assert(offsetof(TArmStartBody, data_size) == 276 - 12);
static_assert(offsetof(TArmStartBody, time) == 280 - 12);

static_assert(sizeof(TArmUpdateBody) == 1044);
static_assert(offsetof(TArmUpdateBody, start_handle) == 12 - 12);
static_assert(offsetof(TArmUpdateBody, flags) == 16 - 12);
static_assert(offsetof(TArmUpdateBody, data) == 20 - 12);
static_assert(offsetof(TArmUpdateBody, data_size) == 1044 - 12);
static_assert(offsetof(TArmUpdateBody, time) == 1048 - 12);

static_assert(sizeof(TArmStopBody) == 280);
static_assert(offsetof(TArmStopBody, start_handle) == 12 - 12);
static_assert(offsetof(TArmStopBody, comp_status) == 16 - 12);
static_assert(offsetof(TArmStopBody, flags) == 20 - 12);
static_assert(offsetof(TArmStopBody, data) == 24 - 12);
static_assert(offsetof(TArmStopBody, data_size) == 280 - 12);
static_assert(offsetof(TArmStopBody, time) == 284 - 12);

static_assert(sizeof(TArmEndBody) == 16);
static_assert(offsetof(TArmEndBody, appl_id) == 12 - 12);
static_assert(offsetof(TArmEndBody, flags) == 16 - 12);
static_assert(offsetof(TArmEndBody, data) == 20 - 12);
static_assert(offsetof(TArmEndBody, data_size) == 24 - 12);

static_assert(sizeof(TArmCompleteBody) == 20);
static_assert(offsetof(TArmCompleteBody, tran_handle) == 12 - 12);
static_assert(offsetof(TArmCompleteBody, complete_value1) == 16 - 12);
static_assert(offsetof(TArmCompleteBody, complete_value2) == 20 - 12);
static_assert(offsetof(TArmCompleteBody, time) == 24 - 12);

static_assert(sizeof(TArmReportBody) == 288);
static_assert(offsetof(TArmReportBody, tran_handle) == 12 - 12);
static_assert(offsetof(TArmReportBody, report_value1) == 16 - 12);
static_assert(offsetof(TArmReportBody, report_value2) == 20 - 12);
static_assert(offsetof(TArmReportBody, report_value3) == 24 - 12);
static_assert(offsetof(TArmReportBody, reserved) == 28 - 12);
static_assert(offsetof(TArmReportBody, data) == 32 - 12);
static_assert(offsetof(TArmReportBody, data_size) == 288 - 12);
static_assert(offsetof(TArmReportBody, time) == 292 - 12);

static_assert(sizeof(TArmMetricDataBody) == 4104);
static_assert(offsetof(TArmMetricDataBody, tran_handle) == 12 - 12);
static_assert(offsetof(TArmMetricDataBody, length) == 16 - 12);
static_assert(offsetof(TArmMetricDataBody, metric_data) == 20 - 12);

/// Prints the layout of both records to standard output, in four lines.  Nothing in the library
/// calls it.
void dumpMsgSizes();
