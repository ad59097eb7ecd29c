// Findings, kept as a diagnosing pass gives them.

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

// A single finding, its severity by its code, its message opened as errors of `record` are.
inline void ExpectOne(std::vector<Finding> const& findings, Finding const& expected, char const* record) {
    ASSERT_EQ(findings.size(), 1u);
    Finding const& seen = findings[0];
    bool const note = expected.code % 100 > 50;
    EXPECT_TRUE(seen.code == expected.code && seen.severity == (note ? CR_FINDING_NOTE : CR_FINDING_ERROR))
        << seen.code;
    EXPECT_TRUE(seen.field == expected.field && seen.offset == expected.offset) << seen.field << " " << seen.offset;
    EXPECT_TRUE(seen.found == expected.found && seen.expected == expected.expected)
        << seen.found << " " << seen.expected;
    EXPECT_EQ(seen.message.starts_with(std::string("Invalid ") + record + ": "), !note) << seen.message;
}
