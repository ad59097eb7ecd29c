// The database DuckDB, from the library of its package for Node.js. The package has no header.

#pragma once

#include <cstdint>
#include <span>

namespace bench {

// A database in memory. Throws Skipped if the library is not installed.
class DuckDB {
public:
    DuckDB();
    ~DuckDB();
    DuckDB(DuckDB const&) = delete;
    DuckDB& operator=(DuckDB const&) = delete;

    void Run(char const* query) const;
    // Returns: the sum of a column of the result, of 64-bit numbers.
    std::uint64_t SumOf(char const* query, std::uint64_t column) const;

    // Fills the table `entries`.
    class Appender {
    public:
        Appender(DuckDB const& database, char const* createTable);
        ~Appender();
        Appender(Appender const&) = delete;
        Appender& operator=(Appender const&) = delete;

        void Append(std::uint32_t record, std::uint64_t dcid, std::span<unsigned char const> fingerprint,
                    std::uint32_t size);

    private:
        void* appender_ = nullptr;
    };

private:
    void* database_ = nullptr;
    void* connection_ = nullptr;
};

} // namespace bench
