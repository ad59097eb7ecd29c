// Collects the findings of a diagnosing function.

#pragma once

#include <crrecord/finding.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

struct Finding {
    int code, severity;
    unsigned long offset, found, expected;
    std::string field, message;
};

inline bool Collect(cr_finding_t const* f, void* findings) {
    EXPECT_EQ(f->struct_size, sizeof *f);
    static_cast<std::vector<Finding>*>(findings)->push_back(
        {f->code, f->severity, f->offset, f->found, f->expected, f->field, f->message});
    return true;
}

// A single finding. Its code determines its severity; the message of an error names the kind of record.
inline void ExpectOne(std::vector<Finding> const& findings, Finding const& expected, char const* record) {
    ASSERT_EQ(findings.size(), 1u);
    Finding const& seen = findings[0];
    bool const note = expected.code % 100 > 50;
    EXPECT_EQ(std::tuple(seen.code, seen.severity, seen.field, seen.offset, seen.found, seen.expected),
              std::tuple(expected.code, note ? CR_FINDING_NOTE : CR_FINDING_ERROR, expected.field, expected.offset,
                         expected.found, expected.expected));
    EXPECT_EQ(seen.message.starts_with(std::string("Invalid ") + record + ": "), !note) << seen.message;
}
