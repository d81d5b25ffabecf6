// The made-up application that the generated agents watch: tiers, their instances, and all names they speak of.
//   In      the number of instances
//   Out     texts by kind; which methods are entry points, which ones talk to a database, another tier, a cache
//   Thread  one
//   Failure none
// Sample of a method: com.acme.shop.order.OrderService.placeOrder(Ljava/lang/String;I)V
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What agents announce with a local id of its own; SAMPLE_SQL and SAMPLE_SQL_PLAIN share one row of ids.
enum sample_kind : uint8_t {
  SAMPLE_METHOD,
  SAMPLE_HEADER,
  SAMPLE_URL,
  SAMPLE_SQL,
  SAMPLE_SQL_PLAIN,
  SAMPLE_RESOURCE,
  SAMPLE_EXCP_CLS,
  SAMPLE_EXCP_THR_CLS,
  SAMPLE_EXCP_THR_MTD,
  SAMPLE_EXCP_MSG,
  SAMPLE_EXCP_CAUSE,
  SAMPLE_EXCP_ST,
  SAMPLE_ARG,
  SAMPLE_KINDS
};

// A consecutive part of one kind's texts.
struct sample_range {
  uint32_t first;
  uint32_t count;
};

// Methods by what they do.
enum sample_layer : uint8_t {
  SAMPLE_ENTRY,
  SAMPLE_INNER,
  SAMPLE_STORE,
  SAMPLE_CLIENT,
  SAMPLE_CACHE,
  SAMPLE_BACKEND_DB,
  SAMPLE_BACKEND_HTTP,
  SAMPLE_BACKEND_QUEUE,
  SAMPLE_LAYERS
};

// Header texts by what they stand for.
enum sample_header_use : uint8_t {
  SAMPLE_HEADER_NAME,
  SAMPLE_HEADER_VALUE,
  SAMPLE_HEADER_CUSTOM,
  SAMPLE_HEADER_SESSION,
  SAMPLE_HEADER_USES
};

// Places of the header names, in the order of their texts.
enum sample_header_name : uint8_t {
  HEADER_USER_AGENT,
  HEADER_ACCEPT,
  HEADER_ACCEPT_LANGUAGE,
  HEADER_ACCEPT_ENCODING,
  HEADER_HOST,
  HEADER_REFERER,
  HEADER_COOKIE,
  HEADER_CACHE_CONTROL,
  HEADER_CONTENT_TYPE,
  HEADER_CONTENT_LENGTH,
  HEADER_X_FORWARDED_FOR,
  HEADER_ORIGIN,
  HEADER_IF_NONE_MATCH,
  HEADER_ETAG,
  HEADER_LAST_MODIFIED,
  HEADER_AUTHORIZATION,
  HEADER_SET_COOKIE,
  HEADER_SERVER,
  HEADER_VARY,
  HEADER_X_REQUEST_ID
};

struct sample_tier_t {
  std::string name;
  std::vector<std::string> texts[SAMPLE_KINDS];
  sample_range layers[SAMPLE_LAYERS];       // of texts[SAMPLE_METHOD]
  sample_range headers[SAMPLE_HEADER_USES]; // of texts[SAMPLE_HEADER]
};

struct sample_instance_t {
  std::string tier, server, app;
  int tier_id, server_id, app_id; // from 1
  int tier_index;                 // into sample_model_t::tiers
  bool exit_form;                 // how its agent writes call trees
};

enum sample_forms : uint8_t { SAMPLE_CLASSIC, SAMPLE_EXIT, SAMPLE_BOTH };

struct sample_model_t {
  std::vector<sample_tier_t> tiers; // each one calls the next
  std::vector<sample_instance_t> instances;
};

// Two instances make a tier, as far as there are tiers. With SAMPLE_BOTH every second instance writes the exit form.
sample_model_t sample_make_model(int instances, sample_forms forms);

// All method names that the words allow, each one once: about 20000.
std::vector<std::string> sample_method_vocabulary();

// Name of an instance and of its raw data file without the extension: tier_server_app.
std::string sample_instance_file_name(const sample_instance_t &inst);
