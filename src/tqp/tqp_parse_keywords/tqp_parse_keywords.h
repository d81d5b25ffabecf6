// Reads the keyword file into the keyword globals.
//   In      "TQKeywords.conf" or "tq.conf" of the test run's profile
//   Out     the globals of keyword_values.h
//   Thread  main, before any other thread starts
//   Failure a bad value takes its default and is traced; only a bad TQ_FPI_MASK and an unreadable file are fatal
// Samples:  TQP_TRACE_LEVEL 2     TQP_SEQ_BLOB_IN_FILE_FLAG 1 B 10000     # a comment
#pragma once

#include "tqp_main.h"

// Path of the keyword file that was read last, for messages; empty before.
extern std::string tq_conf_path;

// Parses a file. 0, or -1 with the reason in *err_msg.
int read_config_file_and_parse_tq_keywords(const char *path, std::string *err_msg);

// Every keyword global to its default.
void tqp_keywords_init();

// The subset of defaults that is kept for callers who restart the parsing; the process has none.
void tqc_reset_kw_values();

// Overwrites the values that the process fixes after parsing, whatever the file said.
void tqp_fix_reset_keywords();

// Milliseconds of a text such as "10s", "5M" or "2h"; -1 for another unit, none, or a number below 1.
int64_t check_time_in_min_sec_or_hr(const char *text);
