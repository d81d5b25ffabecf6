// Makes the names of the application from short lists of words.
//   In      word lists below
//   Out     sample_model_t, the method vocabulary
//   Thread  one
//   Failure none
#include "sample_model.h"

#include <algorithm>
#include <string_view>

#include "sample_tools.h"

static constexpr std::string_view domains[] = {"shop",   "orders", "billing", "stock",
                                               "search", "mail",   "account", "base"};
static constexpr std::string_view areas[] = {"order",   "cart",   "product",  "price", "customer", "payment",
                                             "invoice", "parcel", "supplier", "offer", "voucher",  "session"};
static constexpr std::string_view class_endings[] = {"Controller", "Service", "ServiceImpl", "Validator", "Mapper",
                                                     "Repository", "Dao",     "Client",      "Gateway",   "Cache"};
static constexpr std::string_view verbs[] = {"place", "find", "update", "remove", "load", "check", "send"};
static constexpr std::string_view objects[] = {"", "Item", "List"};
static constexpr std::string_view signatures[] = {"(Ljava/lang/String;I)V",
                                                  "(J)Ljava/util/List;",
                                                  "()V",
                                                  "(Ljava/util/Map;)Z",
                                                  "(Ljava/lang/String;)Ljava/lang/Object;",
                                                  "(IJ)Ljava/util/Optional;",
                                                  "(Ljava/lang/Object;Ljava/lang/String;Z)J"};

static constexpr std::string_view tier_names[] = {"Storefront", "Orders", "Billing", "Stock", "Search", "Mail"};
static constexpr std::string_view server_words[] = {"web", "ord", "bil", "stk", "sea", "mai"};
static constexpr std::string_view app_names[] = {"shop", "orders", "billing", "stock", "search", "mail"};

static constexpr std::string_view header_names[] = {
    "User-Agent",    "Accept",        "Accept-Language", "Accept-Encoding", "Host",   "Referer",       "Cookie",
    "Cache-Control", "Content-Type",  "Content-Length",  "X-Forwarded-For", "Origin", "If-None-Match", "ETag",
    "Last-Modified", "Authorization", "Set-Cookie",      "Server",          "Vary",   "X-Request-Id"};
static constexpr std::string_view header_values[] = {"Mozilla/5.0 (X11; Linux x86-64) AcmeBrowser/118.0",
                                                     "Mozilla/5.0 (Phone; 14.1) AcmeMobile/7.2",
                                                     "text/html",
                                                     "application/json",
                                                     "application/json; charset=utf-8",
                                                     "gzip",
                                                     "en-GB",
                                                     "de-DE",
                                                     "no-cache",
                                                     "max-age=300",
                                                     "shop.acme.example",
                                                     "https://shop.acme.example/cart",
                                                     "gold",
                                                     "/"};
static constexpr std::string_view custom_names[] = {"customerId", "basketValue", "itemCount", "voucherCode",
                                                    "loyaltyLevel"};
static constexpr std::string_view session_names[] = {"sessionUser", "sessionCurrency", "sessionLanguage",
                                                     "sessionCart"};

static constexpr std::string_view sql_front[] = {"SELECT * FROM ",        "SELECT count(*) FROM ", "UPDATE ",
                                                 "DELETE FROM ",          "INSERT INTO ",          "CALL refresh ",
                                                 "  select max(id) from "};
static constexpr std::string_view sql_tail[] = {" WHERE id = ?",
                                                " WHERE customer = ? AND state = ?",
                                                " SET state = ? WHERE id = ?",
                                                " WHERE created < ?",
                                                " SELECT ? FROM dual",
                                                " (?)",
                                                " WHERE id > ?"};
static constexpr std::string_view resources[] = {"jdbc/ordersDb",       "jdbc/stockDb",  "jdbc/billingDb",
                                                 "http/pricing:8080",   "http/geo:8081", "http/payments:8443",
                                                 "queue/orderAccepted", "queue/mailOut", "cache/sessions"};
static constexpr std::string_view db_backends[] = {"OrdersDb", "StockDb", "BillingDb"};
static constexpr std::string_view http_backends[] = {"PricingApi", "GeoApi", "PaymentApi", "NextTier"};
static constexpr std::string_view queue_backends[] = {"OrderAcceptedQueue", "MailOutQueue"};

static constexpr std::string_view excp_classes[] = {
    "java.lang.IllegalStateException", "java.lang.NullPointerException",    "java.sql.SQLTimeoutException",
    "java.net.ConnectException",       "com.acme.shop.OutOfStockException", "com.acme.billing.CardRefusedException"};
static constexpr std::string_view excp_messages[] = {"Connection refused",
                                                     "order is already closed",
                                                     "statement timed out after 30 s",
                                                     "no stock left for the product",
                                                     "card refused by the bank",
                                                     "voucher has expired"};
static constexpr std::string_view pages[] = {"HomePage",     "SearchResults", "ProductDetail", "CartView",
                                             "CheckoutStep", "OrderStatus",   "AccountPage",   "VoucherEntry"};

static std::string with_capital(std::string_view word) {
  std::string text(word);
  text[0] = static_cast<char>(text[0] - 'a' + 'A');
  return text;
}

// com.acme.shop.order.OrderService.placeOrderItem(J)V; the signature follows from the other words.
static std::string method_name(std::string_view domain, std::string_view area, std::string_view class_ending,
                               size_t verb, size_t object) {
  std::string text;
  const std::string noun = with_capital(area);
  const size_t signature = (verb * 5 + object * 3 + class_ending.size() + area.size()) % std::size(signatures);
  sample_put(text, "com.acme.", domain, '.', area, '.', noun, class_ending, '.', verbs[verb], noun, objects[object],
             signatures[signature]);
  return text;
}

std::vector<std::string> sample_method_vocabulary() {
  std::vector<std::string> names;
  for (const std::string_view domain : domains)
    for (const std::string_view area : areas)
      for (const std::string_view ending : class_endings)
        for (size_t method = 0; method < std::size(verbs) * std::size(objects); ++method)
          names.push_back(method_name(domain, area, ending, method / std::size(objects), method % std::size(objects)));
  return names;
}

static uint32_t size_of(const std::vector<std::string> &texts) {
  return static_cast<uint32_t>(texts.size());
}

// Four methods for each area of the classes from one ending up to another.
static sample_range add_layer(std::vector<std::string> &texts, std::string_view domain, size_t ending,
                              size_t ending_end) {
  const uint32_t first = size_of(texts);
  for (; ending < ending_end; ++ending)
    for (size_t area = 0; area < std::size(areas); ++area)
      for (size_t method = 0; method < 4; ++method)
        texts.push_back(method_name(domain, areas[area], class_endings[ending], (method + area) % std::size(verbs),
                                    (method + ending) % std::size(objects)));
  return {first, size_of(texts) - first};
}

template <size_t N>
static sample_range add_words(std::vector<std::string> &texts, const std::string_view (&words)[N],
                              std::string_view front = "", std::string_view tail = "") {
  const uint32_t first = size_of(texts);
  for (const std::string_view word : words)
    texts.emplace_back().append(front).append(word).append(tail);
  return {first, static_cast<uint32_t>(N)};
}

static void add_methods(sample_tier_t &tier, std::string_view domain) {
  std::vector<std::string> &texts = tier.texts[SAMPLE_METHOD];
  tier.layers[SAMPLE_ENTRY] = add_layer(texts, domain, 0, 1);
  tier.layers[SAMPLE_INNER] = add_layer(texts, domain, 1, 5);
  add_layer(texts, "base", 3, 5); // classes that all tiers have
  tier.layers[SAMPLE_INNER].count = size_of(texts) - tier.layers[SAMPLE_INNER].first;
  tier.layers[SAMPLE_STORE] = add_layer(texts, domain, 5, 7);
  tier.layers[SAMPLE_CLIENT] = add_layer(texts, domain, 7, 9);
  tier.layers[SAMPLE_CACHE] = add_layer(texts, domain, 9, 10);
  tier.layers[SAMPLE_BACKEND_DB] = add_words(texts, db_backends, "com.acme.backend.", ".query()V");
  tier.layers[SAMPLE_BACKEND_HTTP] = add_words(texts, http_backends, "com.acme.backend.", ".call()V");
  tier.layers[SAMPLE_BACKEND_QUEUE] = add_words(texts, queue_backends, "com.acme.backend.", ".send()V");
}

static void add_headers(sample_tier_t &tier) {
  std::vector<std::string> &texts = tier.texts[SAMPLE_HEADER];
  tier.headers[SAMPLE_HEADER_NAME] = add_words(texts, header_names);
  tier.headers[SAMPLE_HEADER_VALUE] = add_words(texts, header_values);
  tier.headers[SAMPLE_HEADER_CUSTOM] = add_words(texts, custom_names);
  tier.headers[SAMPLE_HEADER_SESSION] = add_words(texts, session_names);
}

static void add_urls_and_sql(sample_tier_t &tier, std::string_view domain) {
  for (size_t area = 0; area < std::size(areas); ++area) {
    for (const std::string_view verb : verbs)
      sample_put(tier.texts[SAMPLE_URL].emplace_back(), '/', domain, '/', areas[area], '/', verb);
    sample_put(tier.texts[SAMPLE_URL].emplace_back(), '/', domain, '/', areas[area], "/compare?ids=", 100 + area, ',',
               200 + area);
    for (size_t i = 0; i < std::size(sql_front); ++i)
      sample_put(tier.texts[SAMPLE_SQL].emplace_back(), sql_front[i], areas[area], sql_tail[i]);
    for (size_t i = 0; i < 12; ++i)
      sample_put(tier.texts[SAMPLE_SQL_PLAIN].emplace_back(), sql_front[i % 4], areas[area],
                 i % 4 == 2 ? " SET state = 'open'" : "", " WHERE code = 'A-", 10007 * (area + 1) + 31 * i, "'");
  }
}

static void add_exceptions(sample_tier_t &tier, std::string_view domain) {
  add_words(tier.texts[SAMPLE_EXCP_CLS], excp_classes);
  add_words(tier.texts[SAMPLE_EXCP_MSG], excp_messages);
  add_words(tier.texts[SAMPLE_EXCP_CAUSE], excp_classes, "caused by ");
  for (size_t area = 0; area < std::size(areas); ++area) {
    const std::string noun = with_capital(areas[area]);
    std::string place;
    sample_put(place, "com.acme.", domain, '.', areas[area], '.', noun, "ServiceImpl");
    tier.texts[SAMPLE_EXCP_THR_CLS].push_back(place);
    sample_put(tier.texts[SAMPLE_EXCP_THR_MTD].emplace_back(), verbs[area % std::size(verbs)], noun);
    sample_put(tier.texts[SAMPLE_EXCP_ST].emplace_back(), "at ", place, '.', verbs[area % std::size(verbs)], noun, '(',
               noun, "ServiceImpl.java:", 40 + area * 7,
               ") at com.acme.base.web.Dispatcher.handle(Dispatcher.java:211)");
  }
}

static sample_tier_t make_tier(size_t tier_index) {
  sample_tier_t tier = {};
  const std::string_view domain = domains[tier_index];
  tier.name = tier_names[tier_index];
  add_methods(tier, domain);
  add_headers(tier);
  add_urls_and_sql(tier, domain);
  add_exceptions(tier, domain);
  add_words(tier.texts[SAMPLE_RESOURCE], resources);
  add_words(tier.texts[SAMPLE_ARG], pages);
  return tier;
}

static sample_instance_t make_instance(int index, int tier_index, int server_in_tier, bool exit_form) {
  const auto t = static_cast<size_t>(tier_index);
  sample_instance_t inst = {};
  inst.tier = tier_names[t];
  sample_put(inst.server, server_words[t], server_in_tier < 10 ? "0" : "", server_in_tier);
  inst.app = app_names[t];
  inst.tier_id = tier_index + 1;
  inst.server_id = inst.app_id = index + 1;
  inst.tier_index = tier_index;
  inst.exit_form = exit_form;
  return inst;
}

sample_model_t sample_make_model(int instances, sample_forms forms) {
  sample_model_t model;
  const int tiers = std::clamp(instances / 2, 1, static_cast<int>(std::size(tier_names)));
  for (int t = 0; t < tiers; ++t)
    model.tiers.push_back(make_tier(static_cast<size_t>(t)));
  for (int i = 0, server = 0, tier = 0; i < instances; ++i) {
    if (const int now = static_cast<int>(static_cast<int64_t>(i) * tiers / instances); now != tier)
      tier = now, server = 0;
    model.instances.push_back(
        make_instance(i, tier, ++server, forms == SAMPLE_EXIT || (forms == SAMPLE_BOTH && i % 2 == 1)));
  }
  return model;
}

std::string sample_instance_file_name(const sample_instance_t &inst) {
  std::string name;
  sample_put(name, inst.tier, '_', inst.server, '_', inst.app);
  return name;
}
