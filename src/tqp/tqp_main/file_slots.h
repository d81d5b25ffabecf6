// Numbers of the output files' streams, and the kinds of metadata that stand in rows.
#pragma once

// Data files of one instance; the ones below the time constraint are also kept for the previous partition.
enum csv_file_pointers {
  FLOWPATH_CSV_FP = 0,            // TQFlowPath.csv
  SQL_RECORD_TABLE_FP = 1,        // TQSQLRecord.csv
  METHOD_TIMING_CSV_FP = 2,       // TQMethodTiming.csv, or the dat file
  JMS_CSV_FP = 3,                 // TQJMS.csv
  SQL_TIMING_CSV_FP = 4,          // TQSQLTiming.csv
  BCIARG_CSV_FP = 5,              // TQBCIArg.csv
  HTTP_CAPTURE_HEADER_CSV_FP = 6, // TQCustomData.csv
  RESOURCE_TIMING_CSV_FP = 7,     // reserved, no writer
  EXCP_DATA_CSV_FP = 8,           // TQExceptions.csv
  __NUM_CSV_FILE_POINTERS_WITH_TIME_CONSTRAINT__ = 9,
  TQ_URLRECORD_FP = 9, // TQURLRecord.csv
  APPLOG_CSV_FP = 10,
  __NUM_DYNAMIC_CSV_FILE_POINTERS__ = 11,
  __NUM_CSV_FILE_POINTERS__ = 12
};

// Metadata files common to all instances; each has its own lock.
enum metadata_csv_idx {
  EXCP_THR_CLS_CSV_IDX = 0,
  EXCP_THR_MTD_CSV_IDX = 1,
  EXCP_ST_CSV_IDX = 2,
  EXCP_CLS_CSV_IDX = 3,
  EXCP_MSG_CSV_IDX = 4,
  EXCP_CAUSE_CSV_IDX = 5,
  URL_TABLE_CSV_IDX = 6,
  METADATA_CSV_IDX = 7,
  HTTP_HEADER_METADATA_CSV_IDX = 8,
  SQL_TABLE_CSV_IDX = 9,
  SQL_TABLE_NONPREP_CSV_IDX = 10,
  SQL_TABLE_NONPREP_PREV_CSV_IDX = 11, // never held open
  TQ_FP_SIGNATURE_CSV_IDX = 12,
  RESOURCE_CSV_IDX = 13,
  METADATA_EX_CSV_IDX = 14, // only with tqp_extended_metadata
  TAGS_TABLE_CSV_IDX = 15,
  __NUM_METADATA_CSV_IDX__ = 16
};

// Kinds of text, as they stand in TQMetaData.csv and TQMetaDataEx.csv.
enum metadata_type {
  METADATA_TYPE_METHOD = 0,
  METADATA_TYPE_CLASS = 1,
  METADATA_TYPE_PACKAGE = 2,
  METADATA_TYPE_APP = 3,
  METADATA_TYPE_FUNCTION_GROUP = 4,
  METADATA_TYPE_TIER = 5,
  METADATA_TYPE_BCI_ARG = 6,
  __NUM_METADATA_TYPES__ = 7,
  METADATA_TYPE_RESOURCE = 7,
  METADATA_TYPE_SQL = 8,
  METADATA_TYPE_SQL_NONPREP = 9,
  METADATA_TYPE_HTTP_HEADER = 10,
  METADATA_TYPE_EXCP_CLS = 11,
  METADATA_TYPE_EXCP_THR_CLS = 12,
  METADATA_TYPE_EXCP_THR_MTD = 13,
  METADATA_TYPE_EXCP_STACK = 14,
  METADATA_TYPE_EXCP_MSG = 15,
  METADATA_TYPE_EXCP_CAUSE = 16,
  METADATA_TYPE_FP_SIGNATURE = 17,
  METADATA_TYPE_AUTO_TOPO_DISCOVERY = 18
};
