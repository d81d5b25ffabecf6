// Which tier answers the backends that a tier calls: collected from all instances, kept as a JSON file.
//   In      91,backend,source tier,destination tier; the file of the run before, when resuming
//   Out     "%s/logs/TR%d/topology/tqIntegrationPoint.conf", replaced as a whole: for each new pair while it is short, a
//           longer one when it has grown by a quarter and when an instance has read its file to the end
//   Thread  any instance's, under key_auto_topo_mutex; main at start and end
//   Failure a record that ends early does nothing; a file that cannot be read is moved aside and leaves the structure
//           empty, one that cannot be written is told, and written whole with the next new pair
// The first destination of a source's backend stays. Texts go to the file as they are, quotes and all; so a file of this
// layout is read back line by line, and any other as strict JSON.

#include "tqp_tags.h"

#include "data_files.h"
#include "field_cursor.h"
#include "output_wait.h"

#include "wllb_json_parser.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <sys/stat.h>

constexpr size_t topo_text_size = 1024;                    // bytes kept of a name
constexpr size_t most_topology_bytes = size_t{8} << 20U;   // of the file; pairs beyond are refused
constexpr size_t always_written_bytes = size_t{32} << 10U; // a file up to here is written for each new pair

// Keys of the file.
static constexpr const char *mappings_key = "backendNamesMappings";
static constexpr const char *src_tier_key = "srcTier";
static constexpr const char *backend_data_key = "backendData";
static constexpr const char *backend_name_key = "backendName";
static constexpr const char *dest_tier_key = "destTier";

struct AutoTopoBackend { // by the backend's number within its source
  std::string backend_name;
  std::string dest_tier;
};

struct AutoTopoSrc { // by the source tier's norm id
  std::string src_tier;
  std::vector<AutoTopoBackend> auto_topo_backend_arr;
  std::unordered_map<std::string, size_t> key_auto_topo_discovery_backend; // whole names to places
};

struct AutoTopoDiscovery {
  std::vector<AutoTopoSrc> auto_topo_src_arr;
  size_t bytes;         // of the file, a little more than it has
  size_t bytes_written; // the same when it was last written
  bool unsaved;         // there is a pair that the file lacks
  bool limit_told;
};

static AutoTopoDiscovery auto_topo_discovery WLLB_GUARDED_BY(key_auto_topo_mutex);

static std::string topology_dir() {
  return wllb_format("%s/logs/TR%d/topology", wl_wdir, testidx);
}

static std::string auto_discovery_json_file_name() {
  return topology_dir() + "/tqIntegrationPoint.conf";
}

static void make_topology_dir() {
  if (mkdir(topology_dir().c_str(), 0755) == 0)
    tqp_own_directory(topology_dir().c_str());
}

// --- the structure --------------------------------------------------------------------------------------------------

static std::string kept_name(const char *name) {
  return {name, strnlen(name, topo_text_size)};
}

// False when the file has grown as long as it may.
static bool take_room(size_t bytes) WLLB_REQUIRES(key_auto_topo_mutex) {
  if (auto_topo_discovery.bytes + bytes <= most_topology_bytes) {
    auto_topo_discovery.bytes += bytes;
    return true;
  }
  if (!auto_topo_discovery.limit_told)
    wllb_trace(1, "Critical",
               "Auto discovery topology has reached its limit of %zu bytes, further backends are ignored",
               most_topology_bytes);
  auto_topo_discovery.limit_told = true;
  return false;
}

static int tq_auto_topo_copy_backend(const char *backend, const char *dest_tier, AutoTopoSrc *src)
    WLLB_REQUIRES(key_auto_topo_mutex) {
  constexpr size_t layout_bytes = 80; // of a pair, besides its names
  AutoTopoBackend entry = {.backend_name = kept_name(backend), .dest_tier = kept_name(dest_tier)};
  if (!take_room(layout_bytes + entry.backend_name.size() + entry.dest_tier.size()))
    return -1;
  src->key_auto_topo_discovery_backend.emplace(backend, src->auto_topo_backend_arr.size());
  src->auto_topo_backend_arr.push_back(std::move(entry));
  return 1;
}

// The source of that name, made when it is new; null for one that may not be.
static AutoTopoSrc *source_of(const char *src_tier) WLLB_REQUIRES(key_auto_topo_mutex) {
  constexpr size_t layout_bytes = 100; // of a source, besides its name and its pairs
  std::vector<AutoTopoSrc> &sources = auto_topo_discovery.auto_topo_src_arr;
  int id = wllb_get_norm_id(&key_auto_topo_discovery_src, src_tier, static_cast<int>(strlen(src_tier)));
  if (id < 0) {
    int is_new = 0;
    if (*src_tier == 0 || !take_room(layout_bytes + kept_name(src_tier).size()))
      return nullptr;
    id = wllb_get_or_gen_norm_id(&key_auto_topo_discovery_src, src_tier, 0, &is_new);
    if (id == static_cast<int>(sources.size()))
      sources.push_back(
          {.src_tier = kept_name(src_tier), .auto_topo_backend_arr = {}, .key_auto_topo_discovery_backend = {}});
  }
  return id >= 0 && id < static_cast<int>(sources.size()) ? &sources[static_cast<size_t>(id)] : nullptr;
}

// 1: a new pair; 0: known; -1: a text is empty, or there are too many.
static int tq_auto_topo_copy_src(const char *backend, const char *src_tier, const char *dest_tier)
    WLLB_REQUIRES(key_auto_topo_mutex) {
  AutoTopoSrc *src = source_of(src_tier);
  if (!src)
    return -1;
  if (*backend == 0) {
    wllb_trace(1, "Error", "Error in getting norm_id for backend %s", backend);
    return -1;
  }
  return src->key_auto_topo_discovery_backend.contains(backend) ? 0
                                                                : tq_auto_topo_copy_backend(backend, dest_tier, src);
}

void tqp_free_auto_topology() {
  const wllb_hold hold(key_auto_topo_mutex);
  auto_topo_discovery = {};
}

// --- the file -------------------------------------------------------------------------------------------------------

static void put_source(std::string &json, const AutoTopoSrc &src, bool is_last) {
  json += wllb_format("\n    {\n      \"%s\" : \"%s\",\n      \"%s\":\n      [", src_tier_key, src.src_tier.c_str(),
                      backend_data_key);
  for (const AutoTopoBackend &backend : src.auto_topo_backend_arr) {
    json += wllb_format("\n        {\n          \"%s\": \"%s\",\n          \"%s\": \"%s\"", backend_name_key,
                        backend.backend_name.c_str(), dest_tier_key, backend.dest_tier.c_str());
    json += &backend == &src.auto_topo_backend_arr.back() ? "\n        }\n" : "\n        },";
  }
  json += is_last ? "      ]\n    }" : "      ]\n    },";
}

static std::string topology_text() WLLB_REQUIRES(key_auto_topo_mutex) {
  std::string json = wllb_format("{\n  \"%s\":\n  [", mappings_key);
  const std::vector<AutoTopoSrc> &sources = auto_topo_discovery.auto_topo_src_arr;
  for (const AutoTopoSrc &src : sources)
    put_source(json, src, &src == &sources.back());
  return json + "\n  ]\n}";
}

// Written beside the file and renamed over it: nobody reads half of it.
static void tq_update_auto_topology_discovery_json() WLLB_REQUIRES(key_auto_topo_mutex) {
  const tqp_waits_for_output spared(nullptr); // the next new pair tries again
  make_topology_dir();
  auto_topo_discovery.unsaved = false; // a file that cannot be written waits for the next new pair
  auto_topo_discovery.bytes_written = auto_topo_discovery.bytes;
  const std::string path = auto_discovery_json_file_name();
  const std::string temp_path = topology_dir() + "/.tempTqIntegrationPoint.conf";
  if (!tqp_write_data_file(temp_path.c_str(), topology_text(), "wx"))
    wllb_trace(1, "Error", "Updating Auto discovery topology json failed because file = %s could not be created",
               temp_path.c_str());
  else if (rename(temp_path.c_str(), path.c_str()) != 0)
    wllb_trace(1, "Error", "Renaming Auto discovery topology json failed. Old file was = %s. New file name was = %s",
               temp_path.c_str(), path.c_str());
  else
    wllb_trace(1, "Info", "Auto discovery topology(91) json file = [%s] created sucessfully", path.c_str());
}

// --- records --------------------------------------------------------------------------------------------------------

void tq_process_auto_topology_discovery_record(char **p_cursor, char *end_of_record) {
  char *backend, *src_tier, *dest_tier;
  if (read_next_field(&backend, p_cursor, end_of_record, ',') < 0 ||
      read_next_field(&src_tier, p_cursor, end_of_record, ',') < 0)
    return;
  read_next_field(&dest_tier, p_cursor, end_of_record, ',');
  const wllb_hold hold(key_auto_topo_mutex);
  if (tq_auto_topo_copy_src(backend, src_tier, dest_tier) != 1)
    return;
  auto_topo_discovery.unsaved = true;
  const size_t bytes = auto_topo_discovery.bytes, written = auto_topo_discovery.bytes_written;
  if (bytes <= always_written_bytes || bytes - written >= written / 4)
    tq_update_auto_topology_discovery_json();
}

void tqp_save_auto_topology() {
  const wllb_hold hold(key_auto_topo_mutex);
  if (auto_topo_discovery.unsaved)
    tq_update_auto_topology_discovery_json();
}

// --- the file of the run before ---------------------------------------------------------------------------------------

static const char *text_of(const wllb_jsont *object, const char *name) {
  const wllb_jsont *member = wllb_jsont_member(object, name);
  return member ? member->text : "";
}

static void take_pair(const char *path, const char *backend, const char *src_tier, const char *dest_tier)
    WLLB_REQUIRES(key_auto_topo_mutex) {
  if (*backend && *src_tier && *dest_tier)
    tq_auto_topo_copy_src(backend, src_tier, dest_tier);
  else
    wllb_trace(1, "Error",
               "Error: found invalid entry in json file = [%s] for backend_name[%s], src_tier[%s], dest_tier[%s]", path,
               backend, src_tier, dest_tier);
}

static void take_source(const char *path, const wllb_jsont *source) WLLB_REQUIRES(key_auto_topo_mutex) {
  const char *src_tier = text_of(source, src_tier_key);
  const wllb_jsont *backends = wllb_jsont_member(source, backend_data_key);
  if (!backends || backends->type != WLLB_JSON_ARRAY)
    return take_pair(path, "", src_tier, "");
  for (const wllb_jsont *backend = backends->child; backend; backend = backend->next)
    take_pair(path, text_of(backend, backend_name_key), src_tier, text_of(backend, dest_tier_key));
}

// The array of sources; null for a tree of anything else.
static const wllb_jsont *mappings_of(const wllb_jsont *root) {
  const wllb_jsont *mappings = wllb_jsont_member(root, mappings_key);
  return mappings && mappings->type == WLLB_JSON_ARRAY ? mappings : nullptr;
}

// The text between the two, when the line begins and ends with them.
static bool cut_line(std::string_view line, std::string_view front, std::string_view back, std::string *text) {
  if (line.size() < front.size() + back.size() || !line.starts_with(front) || !line.ends_with(back))
    return false;
  *text = line.substr(front.size(), line.size() - front.size() - back.size());
  return true;
}

struct topology_line {
  std::string src_tier, backend_name, dest_tier;
};

// The pairs of a file that is to the letter of the layout above. False for any other.
static bool read_own_layout(std::string_view text, std::vector<topology_line> *pairs) {
  const std::string src_front = wllb_format("      \"%s\" : \"", src_tier_key);
  const std::string backend_front = wllb_format("          \"%s\": \"", backend_name_key);
  const std::string dest_front = wllb_format("          \"%s\": \"", dest_tier_key);
  const std::string whole_front = wllb_format("{\n  \"%s\":\n  [\n", mappings_key), whole_back = "\n  ]\n}";
  std::string body;
  if (!cut_line(text, whole_front, whole_back, &body))
    return false;
  const std::string data_line = wllb_format("      \"%s\":", backend_data_key);
  const std::string_view layout[] = {"    {",     data_line, "      [", "        {", "        },",
                                     "        }", "      ]", "    },",  "    }"};
  topology_line pair;
  for (std::string_view rest = body; !rest.empty();) {
    const std::string_view line = wllb_take_piece(&rest, '\n');
    if (cut_line(line, dest_front, "\"", &pair.dest_tier))
      pairs->push_back(pair);
    else if (!cut_line(line, src_front, "\",", &pair.src_tier) &&
             !cut_line(line, backend_front, "\",", &pair.backend_name) &&
             std::find(std::begin(layout), std::end(layout), line) == std::end(layout))
      return false;
  }
  return true;
}

static bool read_own_file(const std::string &path) {
  std::vector<topology_line> pairs;
  if (!wllb_is_regular_file(path.c_str()) ||
      !read_own_layout(wllb_read_small_file(path.c_str(), wllb_json_most_bytes), &pairs))
    return false;
  const wllb_hold hold(key_auto_topo_mutex);
  for (const topology_line &pair : pairs)
    take_pair(path.c_str(), pair.backend_name.c_str(), pair.src_tier.c_str(), pair.dest_tier.c_str());
  return true;
}

// A file that nobody understands is kept for whoever does: the next pair writes a new one in its place.
static void move_aside(const std::string &path) {
  std::string aside = path + ".unreadable";
  for (int i = 1; wllb_path_exists(aside.c_str()); ++i)
    aside = wllb_format("%s.unreadable.%d", path.c_str(), i);
  if (rename(path.c_str(), aside.c_str()) == 0)
    wllb_trace(1, "Warning", "json file = %s cannot be read and is moved to %s", path.c_str(), aside.c_str());
}

static bool read_strictly(const std::string &path) {
  std::string error;
  const wllb_json_file json(wllb_json_init(path.c_str(), &error));
  if (!json) {
    wllb_trace(1, "Error", "json file = %s initialization failed with error = [%s]", path.c_str(), error.c_str());
    return false;
  }
  const wllb_jsont *mappings = mappings_of(wllb_json_to_jsont(json.get(), &error));
  if (!mappings) {
    wllb_trace(1, "Error", "could not create json tree");
    return false;
  }
  const wllb_hold hold(key_auto_topo_mutex);
  for (const wllb_jsont *source = mappings->child; source; source = source->next)
    take_source(path.c_str(), source);
  return true;
}

void tq_build_norm_tables_for_auto_discovery() {
  make_topology_dir();
  const std::string path = auto_discovery_json_file_name();
  if (!read_own_file(path) && !read_strictly(path) && wllb_path_exists(path.c_str()))
    move_aside(path);
  const wllb_hold hold(key_auto_topo_mutex);
  auto_topo_discovery.bytes_written = auto_topo_discovery.bytes;
}
