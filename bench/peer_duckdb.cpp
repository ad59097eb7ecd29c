#include "peer_duckdb.h"

#include "operation.h"

#include <string>

#include <dlfcn.h>

namespace bench {

namespace {

// As in DuckDB's C interface.
struct QueryResult {
    std::uint64_t deprecated[3];
    void* deprecatedColumns;
    char* deprecatedError;
    void* data;
};

// A function of the library.
template <class Function>
Function* Symbol(char const* name) {
    static void* const library = ::dlopen(CRRECORD_DUCKDB, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        throw Skipped("DuckDB is not installed");
    }
    auto* const function = reinterpret_cast<Function*>(::dlsym(library, name));
    Require(function != nullptr, name);
    return function;
}

constexpr int kSuccess = 0;

QueryResult Query(void* connection, char const* query) {
    static auto* const run = Symbol<int(void*, char const*, QueryResult*)>("duckdb_query");
    QueryResult result{};
    if (run(connection, query, &result) != kSuccess) {
        auto* const error = Symbol<char const*(QueryResult*)>("duckdb_result_error");
        throw std::runtime_error(error(&result));
    }
    return result;
}

void Destroy(QueryResult& result) {
    static auto* const destroy = Symbol<void(QueryResult*)>("duckdb_destroy_result");
    destroy(&result);
}

} // namespace

DuckDB::DuckDB() {
    Require(Symbol<int(char const*, void**)>("duckdb_open")(nullptr, &database_) == kSuccess, "duckdb_open");
    Require(Symbol<int(void*, void**)>("duckdb_connect")(database_, &connection_) == kSuccess, "duckdb_connect");
}

DuckDB::~DuckDB() {
    Symbol<void(void**)>("duckdb_disconnect")(&connection_);
    Symbol<void(void**)>("duckdb_close")(&database_);
}

void DuckDB::Run(char const* query) const {
    QueryResult result = Query(connection_, query);
    Destroy(result);
}

std::uint64_t DuckDB::SumOf(char const* query, std::uint64_t column) const {
    auto* const rows = Symbol<std::uint64_t(QueryResult*)>("duckdb_row_count");
    auto* const value = Symbol<std::uint64_t(QueryResult*, std::uint64_t, std::uint64_t)>("duckdb_value_uint64");
    QueryResult result = Query(connection_, query);
    std::uint64_t sum = 0;
    for (std::uint64_t row = 0; row < rows(&result); ++row) {
        sum += value(&result, column, row);
    }
    Destroy(result);
    return sum;
}

DuckDB::Appender::Appender(DuckDB const& database, char const* createTable) {
    database.Run(createTable);
    auto* const create = Symbol<int(void*, char const*, char const*, void**)>("duckdb_appender_create");
    Require(create(database.connection_, nullptr, "entries", &appender_) == kSuccess, "duckdb_appender_create");
}

DuckDB::Appender::~Appender() {
    Symbol<int(void**)>("duckdb_appender_destroy")(&appender_);
}

void DuckDB::Appender::Append(std::uint32_t record, std::uint64_t dcid, std::span<unsigned char const> fingerprint,
                              std::uint32_t size) {
    static auto* const number = Symbol<int(void*, std::uint32_t)>("duckdb_append_uint32");
    static auto* const wide = Symbol<int(void*, std::uint64_t)>("duckdb_append_uint64");
    static auto* const blob = Symbol<int(void*, void const*, std::uint64_t)>("duckdb_append_blob");
    static auto* const end = Symbol<int(void*)>("duckdb_appender_end_row");
    bool const done = number(appender_, record) == kSuccess && wide(appender_, dcid) == kSuccess &&
                      blob(appender_, fingerprint.data(), fingerprint.size()) == kSuccess &&
                      number(appender_, size) == kSuccess && end(appender_) == kSuccess;
    Require(done, "DuckDB does not take a row");
}

} // namespace bench
