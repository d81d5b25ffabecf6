// Files against tables; see the header. A driver that only counts stands in the place of the database.
#include "tqdb_verify.h"

#include "tqdb_load.h"

#include <array>
#include <cmath>
#include <map>

namespace tqdb {

static constexpr int64_t modulus = 2147483647;

namespace {

// Rows and, for each column, its sum: modulo for integers, as it is for reals.
struct counted {
  int64_t rows = 0;
  std::vector<int64_t> sums;
  std::vector<double> reals;

  explicit counted(size_t columns = 0) : sums(columns), reals(columns) {}
};

using counted_apps = std::map<int64_t, counted>; // by app; 0 where the table does not know it

struct counting_driver final : load_driver {
  std::array<counted_apps, TQDB_TABLES> tables;
  std::array<std::map<std::string, std::vector<int64_t>>, TQDB_TABLES> names; // cells by key

  open_result open(const load_scope & /*scope*/, load_state *state) override {
    *state = {};
    return TQDB_READY;
  }

  take_result add(const row_batch &rows) override;

  take_result begin_loading(bool /*bulk*/) override { return TQDB_TAKEN; }

  take_result commit(const load_positions & /*changed*/) override { return TQDB_TAKEN; }

  void roll_back() override {}

  take_result finish() override;

  take_result drop_testrun(int32_t /*testrun*/, int32_t /*node*/) override { return TQDB_BROKEN; }

  take_result drop_before(int64_t /*time_ms*/) override { return TQDB_BROKEN; }

  int64_t unit_bytes(bool /*bulk*/) const override { return 16 << 20; }
};

} // namespace

static void count_row(const table &t, const row_batch &rows, const int64_t *number, counted *sums) {
  ++sums->rows;
  for (size_t i = 0; i < t.columns.size(); ++i) {
    if (is_integer(t.columns[i].type))
      sums->sums[i] = (sums->sums[i] + number[i] % modulus) % modulus;
    else if (t.columns[i].type == TQDB_F64)
      sums->reals[i] += rows.real_of(number[i]);
  }
}

take_result counting_driver::add(const row_batch &rows) {
  const table &t = table_of(rows.table);
  const int app = t.kind == TQDB_FACT ? column_number(t, "app") : -1;
  for (size_t row = 0; row < rows.rows(); ++row) {
    const int64_t *number = rows.cells_of(row);
    if (t.kind == TQDB_NAME) {
      std::string key;
      for (size_t i = 0; i < t.columns.size(); ++i)
        if (t.columns[i].role == TQDB_KEY)
          key.append(is_text(t.columns[i].type) ? rows.text_of(number[i]) : std::to_string(number[i])).append(1, '\0');
      names[rows.table][key].assign(number, number + rows.width);
    } else {
      counted &sums = tables[rows.table].try_emplace(app < 0 ? 0 : number[app], counted(rows.width)).first->second;
      count_row(t, rows, number, &sums);
    }
  }
  return TQDB_TAKEN;
}

take_result counting_driver::finish() {
  const row_batch none;
  for (size_t id = 0; id < TQDB_TABLES; ++id)
    for (const auto &[key, numbers] : names[id]) {
      const table &t = table_of(static_cast<table_id>(id));
      count_row(t, none, numbers.data(), &tables[id].try_emplace(0, counted(t.columns.size())).first->second);
    }
  return TQDB_TAKEN;
}

// --- the database's side --------------------------------------------------------------------------------------------

// Which columns a table is compared by. Of sums, those that add up; the rows of a sum are merged, so they are not counted.
static bool is_compared(const table &t, const column &c) {
  return !is_text(c.type) && (t.kind != TQDB_SUM || c.role == TQDB_ADD);
}

static std::string question(const table &t) {
  // By a signed number: ClickHouse takes a plain one as unsigned, and so a negative dividend.
  static constexpr char divided[] = " % CAST(2147483647 AS bigint))";
  const bool by_app = t.kind == TQDB_FACT && column_number(t, "app") >= 0;
  std::string text = std::string("SELECT ") + (by_app ? "app" : "0") + ", count(*)";
  for (const column &c : t.columns)
    if (is_compared(t, c))
      text += std::string(", sum(") + c.name + (c.type == TQDB_F64 ? ")" : divided);
  text += std::string(" FROM ") + t.name + " WHERE testrun = ?1 AND node = ?2";
  return by_app ? text + " GROUP BY app" : text;
}

static double real_of(const cell &c) {
  const auto *number = std::get_if<int64_t>(&c);
  const auto *real = std::get_if<double>(&c);
  const auto *text = std::get_if<std::string>(&c);
  return number ? static_cast<double>(*number) : real ? *real : text ? strtod(text->c_str(), nullptr) : 0;
}

static int64_t integer_of(const cell &c) {
  const auto *number = std::get_if<int64_t>(&c);
  return number ? *number : static_cast<int64_t>(real_of(c));
}

static int64_t residue(int64_t number) {
  return (number % modulus + modulus) % modulus;
}

static std::string place(const table &t, int64_t app) {
  return std::string(t.name) + (app != 0 ? ", instance " + std::to_string(app) : "") + (*t.source ? " (" : "") +
         t.source + (*t.source ? ")" : "");
}

// "", or the first difference of a table's rows of one instance.
static std::string difference(const table &t, int64_t app, const counted &files, const std::vector<cell> &row) {
  const int64_t rows = integer_of(row[1]);
  if (t.kind != TQDB_SUM && rows != files.rows)
    return place(t, app) + ": " + std::to_string(files.rows) + " rows in the files, " + std::to_string(rows) +
           " in the database";
  size_t at = 2;
  for (size_t i = 0; i < t.columns.size(); ++i) {
    if (!is_compared(t, t.columns[i]))
      continue;
    const cell &there = row[at++];
    const double real = real_of(there);
    const bool same = t.columns[i].type == TQDB_F64 ? std::fabs(real - files.reals[i]) <=
                                                          1e-9 * std::max(std::fabs(real), std::fabs(files.reals[i]))
                                                    : residue(integer_of(there)) == residue(files.sums[i]);
    if (!same)
      return place(t, app) + ": the sum of " + t.columns[i].name + " is not that of the files";
  }
  return "";
}

static std::string compare_table(const table &t, const counted_apps &files, const cells &there) {
  std::map<int64_t, const std::vector<cell> *> rows;
  for (const std::vector<cell> &row : there)
    if (integer_of(row[1]) > 0)
      rows[integer_of(row[0])] = &row;
  for (const auto &[app, sums] : files) {
    const auto found = rows.find(app);
    if (found == rows.end())
      return place(t, app) + ": " + std::to_string(sums.rows) + " rows in the files, none in the database";
    if (std::string words = difference(t, app, sums, *found->second); !words.empty())
      return words;
    rows.erase(found);
  }
  if (rows.empty())
    return "";
  return place(t, rows.begin()->first) + ": no rows in the files, " +
         std::to_string(integer_of((*rows.begin()->second)[1])) + " in the database";
}

verify_result verify(const tqread::test_run &run, const load_scope &scope, bool with_blobs, connection *c) {
  verify_result result;
  counting_driver files;
  loader counting(run, {scope, true, with_blobs}, &files, [] { return false; });
  if (counting.open() == TQDB_READY)
    while (counting.pass() == load_result::took_some) {
    }
  counting.finish();
  const value values[] = {int64_t{scope.testrun}, int64_t{scope.node}};
  for (size_t id = 0; id < TQDB_TABLES && result.difference.empty(); ++id) {
    const table &t = table_of(static_cast<table_id>(id));
    if (t.kind == TQDB_BOOK)
      continue;
    cells there;
    const answer a = ask_all(*c, question(t), values, &there, {100000, 600000, 1 << 20});
    result.difference =
        a.end == TQDB_COMPLETE ? compare_table(t, files.tables[id], there) : std::string(t.name) + ": " + a.error;
    ++result.tables;
    if (t.kind != TQDB_SUM)
      for (const auto &[app, sums] : files.tables[id])
        result.rows += sums.rows;
  }
  return result;
}

} // namespace tqdb
