// Telling of bad records: the common front of the messages, the count, and the line that is told once an interval.
#pragma once

#include "tqp_main.h"

// "Error in Raw Data, App Instance: %s, Raw data file line # %lld; " and the words, as an error.
void tqp_rawdata_error(const tqp_instance_t *inst, const char *fmt, ...) WLLB_PRINTF(2, 3);

// Adds one to invalid_rawdata_count.
void tqp_count_invalid_record(tqp_instance_t *inst);

// A record that ends early: told and counted; nothing of it stays.
void tqp_incomplete_record(tqp_instance_t *inst);

// A record with a field too many: told, not counted.
void tqp_surplus_fields(const tqp_instance_t *inst);

// Writes `message` at most once in tqp_errlog_throttle_interval seconds; what came between is told as a number.
void dump_tqp_error_log(tqp_instance_t *inst, tqp_raw_data_error_types error_type, const char *message);
