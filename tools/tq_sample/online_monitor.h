// The parent's monitor port: registrations and sample lines, told in words.
//   In      bytes of one monitor connection: a binary registration, then lines
//   Out     text for people, one line for each; it may hold bytes that no terminal should see
//   Thread  one
//   Failure what is no registration ends the connection; a sample with a wrong number of values is told as it came
// Sample: 0:TQP|2 0.01 0 ... 3   becomes   health of TQP: threads 2, header file 0.01 MB, ..., errors 3
#pragma once

#include <string>
#include <string_view>

#include "online_server.h"

// Takes the registration or one line from the front of `rest`, as online_server::take wants it. *said gets what it means,
// with a newline; it stays as it is when more bytes are needed.
ssize_t online_take_monitor(online_connection &connection, std::string_view rest, std::string *said);
