// Which tier answers the backends that a tier calls: collected from all instances, kept as a JSON file.
//   In      91,backend,source tier,destination tier; the file of the run before, when resuming
//   Out     "%s/logs/TR%d/topology/tqIntegrationPoint.conf", replaced as a whole for each new pair
//   Thread  any instance's, under key_auto_topo_mutex; main at start and end
//   Failure a record that ends early does nothing; a file that cannot be read leaves the structure empty, one that cannot
//           be written is told, and written whole with the next new pair
// The first destination of a source's backend stays. Texts go to the file as they are, quotes and all.

#include "tqp_tags.h"

#include "data_files.h"
#include "field_cursor.h"
#include "output_wait.h"

#include "wllb_json_parser.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include <sys/stat.h>

constexpr int topo_text_size = 1025;
constexpr int32_t topo_growth = 64;
constexpr int backend_buckets = 16384;

// Keys of the file.
static constexpr const char *mappings_key = "backendNamesMappings";
static constexpr const char *src_tier_key = "srcTier";
static constexpr const char *backend_data_key = "backendData";
static constexpr const char *backend_name_key = "backendName";
static constexpr const char *dest_tier_key = "destTier";

struct AutoTopoBackend { // by the backend's norm id within its source
  char backend_name[topo_text_size];
  char dest_tier[topo_text_size];
  char slot_used;
};

struct AutoTopoSrc { // by the source tier's norm id
  int32_t auto_topo_backend_total_size;
  int32_t auto_topo_backend_max_size;
  char src_tier[topo_text_size];
  AutoTopoBackend *auto_topo_backend_arr;
  NormObjKey *key_auto_topo_discovery_backend; // owned; a pointer, since the array moves
  char slot_used;
};

struct AutoTopoDiscovery {
  int32_t auto_discovery_total_size;
  int32_t auto_discovery_max_size;
  AutoTopoSrc *auto_topo_src_arr;
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

// Room for an index, in steps of 64 zeroed entries.
template <class T> static void grow_for_index(T **array, int32_t *max_size, int index) {
  if (index < *max_size)
    return;
  const int32_t size = (index / topo_growth + 1) * topo_growth;
  auto *grown = static_cast<T *>(realloc(*array, static_cast<size_t>(size) * sizeof(T)));
  if (!grown) {
    fprintf(stderr, "Out of Memory: %s for index %d\n", "auto_topo_backend_arr", index);
    wllb_exit(1);
  }
  memset(grown + *max_size, 0, static_cast<size_t>(size - *max_size) * sizeof(T));
  *array = grown;
  *max_size = size;
}

static int tq_auto_topo_copy_backend(const char *backend, const char *dest_tier, int src_index)
    WLLB_REQUIRES(key_auto_topo_mutex) {
  AutoTopoSrc &src = auto_topo_discovery.auto_topo_src_arr[src_index];
  int is_new;
  const int id = wllb_get_or_gen_norm_id(src.key_auto_topo_discovery_backend, backend, 0, &is_new);
  if (id == -1) {
    wllb_trace(1, "Error", "Error in getting norm_id for backend %s", backend);
    return -1;
  }
  if (!is_new)
    return 0;
  grow_for_index(&src.auto_topo_backend_arr, &src.auto_topo_backend_max_size, id);
  AutoTopoBackend &entry = src.auto_topo_backend_arr[id];
  wllb_copy_text(entry.backend_name, sizeof entry.backend_name, backend);
  wllb_copy_text(entry.dest_tier, sizeof entry.dest_tier, dest_tier);
  ++src.auto_topo_backend_total_size;
  entry.slot_used = 1;
  return 1;
}

static void begin_source(int index, const char *src_tier) WLLB_REQUIRES(key_auto_topo_mutex) {
  grow_for_index(&auto_topo_discovery.auto_topo_src_arr, &auto_topo_discovery.auto_discovery_max_size, index);
  AutoTopoSrc &src = auto_topo_discovery.auto_topo_src_arr[index];
  src.key_auto_topo_discovery_backend = new NormObjKey();
  wllb_init_norm_id_table(src.key_auto_topo_discovery_backend, backend_buckets);
  ++auto_topo_discovery.auto_discovery_total_size;
  wllb_copy_text(src.src_tier, sizeof src.src_tier, src_tier);
  src.slot_used = 1;
}

// 1: a new pair; 0: known; -1: a text is empty.
static int tq_auto_topo_copy_src(const char *backend, const char *src_tier, const char *dest_tier)
    WLLB_REQUIRES(key_auto_topo_mutex) {
  int is_new;
  const int id = wllb_get_or_gen_norm_id(&key_auto_topo_discovery_src, src_tier, 0, &is_new);
  if (id < 0)
    return -1;
  if (is_new)
    begin_source(id, src_tier);
  else if (id >= auto_topo_discovery.auto_discovery_total_size)
    return -1; // the table was not made
  return tq_auto_topo_copy_backend(backend, dest_tier, id);
}

void tqp_free_auto_topology() {
  const wllb_hold hold(key_auto_topo_mutex);
  for (int32_t i = 0; i < auto_topo_discovery.auto_discovery_max_size; ++i) {
    const AutoTopoSrc &src = auto_topo_discovery.auto_topo_src_arr[i];
    if (!src.slot_used)
      continue;
    wllb_obj_hash_destroy(src.key_auto_topo_discovery_backend);
    delete src.key_auto_topo_discovery_backend;
    free(src.auto_topo_backend_arr);
  }
  free(auto_topo_discovery.auto_topo_src_arr);
  auto_topo_discovery = {};
}

// --- the file -------------------------------------------------------------------------------------------------------

static void put_source(std::string &json, const AutoTopoSrc &src, bool is_last) {
  json += wllb_format("\n    {\n      \"%s\" : \"%s\",\n      \"%s\":\n      [", src_tier_key, src.src_tier,
                      backend_data_key);
  for (int32_t i = 0; i < src.auto_topo_backend_total_size; ++i) {
    const AutoTopoBackend &backend = src.auto_topo_backend_arr[i];
    json += wllb_format("\n        {\n          \"%s\": \"%s\",\n          \"%s\": \"%s\"", backend_name_key,
                        backend.backend_name, dest_tier_key, backend.dest_tier);
    json += i + 1 == src.auto_topo_backend_total_size ? "\n        }\n" : "\n        },";
  }
  json += is_last ? "      ]\n    }" : "      ]\n    },";
}

static std::string topology_text() WLLB_REQUIRES(key_auto_topo_mutex) {
  std::string json = wllb_format("{\n  \"%s\":\n  [", mappings_key);
  const int32_t total = auto_topo_discovery.auto_discovery_total_size;
  for (int32_t i = 0; i < total; ++i)
    put_source(json, auto_topo_discovery.auto_topo_src_arr[i], i + 1 == total);
  return json + "\n  ]\n}";
}

// Written beside the file and renamed over it: nobody reads half of it.
static void tq_update_auto_topology_discovery_json() WLLB_REQUIRES(key_auto_topo_mutex) {
  const tqp_waits_for_output spared(nullptr); // the next new pair tries again
  make_topology_dir();
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
  if (tq_auto_topo_copy_src(backend, src_tier, dest_tier) == 1)
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

void tq_build_norm_tables_for_auto_discovery() {
  make_topology_dir();
  const std::string path = auto_discovery_json_file_name();
  std::string error;
  const wllb_json_file json(wllb_json_init(path.c_str(), &error));
  if (!json) {
    wllb_trace(1, "Error", "json file = %s initialization failed with error = [%s]", path.c_str(), error.c_str());
    return;
  }
  const wllb_jsont *mappings = mappings_of(wllb_json_to_jsont(json.get(), &error));
  if (!mappings) {
    wllb_trace(1, "Error", "could not create json tree");
    return;
  }
  const wllb_hold hold(key_auto_topo_mutex);
  for (const wllb_jsont *source = mappings->child; source; source = source->next)
    take_source(path.c_str(), source);
}
