// What the command line asks of tqshow.
#pragma once

#include "tqread_filter.h"

#include <cstdint>
#include <string>

enum show_subject : uint8_t { SHOW_FLOWPATHS, SHOW_EXCEPTIONS };

// Places in the words of --by.
enum show_by : int { BY_TRANSACTION, BY_METHOD, BY_QUERY, BY_BACKEND, BY_EXCEPTION };

struct show_options {
  tqread::question asked;
  show_subject subject = SHOW_FLOWPATHS;

  // --- which of what is found ---
  std::string sort; // a key of the list; "": the order of the files
  int64_t top = 0;  // at most so many; 0: all
  bool count_only = false, json = false;
  bool follow = false; // goes on with what comes
  int by = -1;         // a show_by; -1: no sums

  // --- whole flowpaths ---
  bool first = false, every = false, one = false;
  bool tiers = false;    // called flowpaths in their callouts' places
  int64_t fold_ms = 0;   // methods shorter than this are folded
  int64_t poll_ms = 500; // between two looks for what is new
};
