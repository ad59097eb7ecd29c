// Segment records, byte for byte: conversion, serialized form, streams, validation.

#include <crrecord/SOmarshall.h>

#include "reader_agrees.h"
#include "support/log_capture.h"
#include "support/segment_bytes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <locale>
#include <sstream>

namespace {

using Lines = std::vector<std::string>;

// The same record in the other order, maybe without its task ids.
Bytes ByteSwapped(Shape shape, bool strip = false) {
    shape.network = !shape.network;
    shape.taskIds = strip ? 0 : shape.taskIds;
    return Golden(shape);
}

cr_status_t Validate(Bytes const& bytes, unsigned int options) {
    auto const* const record = reinterpret_cast<_SegmentDBRecord const*>(bytes.data());
    return SegmentRecordValidate(record, static_cast<unsigned int>(bytes.size()), options);
}

// Into a record that keeps its crypto mode, reserved byte, key index and spare slot; and in place.
TEST(Convert, ByteSwapsAndStripsTaskIds) {
    for (Shape const& shape : kShapes) {
        for (unsigned int const options : {0u, CR_SO_STRIP_TASKIDS, ~CR_SO_STRIP_TASKIDS}) {
            auto const convert = shape.network ? SegmentRecordNtoh : SegmentRecordHton;
            Bytes bytes = Golden(shape), expected = ByteSwapped(shape, options == CR_SO_STRIP_TASKIDS);
            Bytes separate(expected.size(), 0xee), separateExpected = expected;
            std::memset(&separateExpected[90], 0xee, 4);
            std::memset(&separateExpected[expected.size() - 8], 0xee, 8);
            convert(RecordOf(separate), RecordOf(bytes), options);
            EXPECT_EQ(separate, separateExpected);
            EXPECT_EQ(bytes, Golden(shape));
            convert(RecordOf(bytes), RecordOf(bytes), options);
            bytes.resize(expected.size());
            EXPECT_EQ(bytes, expected);
        }
    }
}

TEST(Serialize, WritesTheExchangeForm) {
    unsigned long length = 77;
    Bytes any = Golden({false});
    void *out = &any, *other = &any;
    EXPECT_EQ(SegmentRecordSerialize(nullptr, &out, &length), CR_STATUS_NULL_ARGUMENT);
    EXPECT_EQ(SegmentRecordSerialize(RecordOf(any), nullptr, &length), CR_STATUS_NULL_ARGUMENT);
    EXPECT_EQ(SegmentRecordSerialize(RecordOf(any), &other, nullptr), CR_STATUS_NULL_ARGUMENT);
    EXPECT_EQ(std::tuple(out, other, length), std::tuple(nullptr, nullptr, 77));
    for (unsigned char const fptype : Bytes{0, 2, 3, 9}) {
        Bytes bytes = Golden({false, fptype});
        Bytes expected = FromHex("4142434445464748010203040506070831323334353637385152535400000002");
        for (std::string const& text : {FingerprintText(0, fptype), FingerprintText(1, fptype), std::string()}) {
            expected.insert(expected.end(), text.c_str(), text.c_str() + text.size() + 1);
        }
        errno = EINVAL; // of an earlier call, and stays
        EXPECT_EQ(SegmentRecordSerialize(RecordOf(bytes), &out, &length), CR_STATUS_OK);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(Bytes(static_cast<char*>(out), static_cast<char*>(out) + length), expected);
        EXPECT_EQ(bytes, Golden({false, fptype}));
        std::free(out);
    }
}

struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

// The text has a raw character for each fingerprint.
TEST(ToStream, WritesBothForms) {
    for (Shape const& shape : kShapes) {
        std::ostringstream text, binary;
        text.imbue(std::locale(std::locale::classic(), new Grouping));
        text << std::hex << std::showbase << std::showpos << std::setfill('*') << std::setw(40);
        Bytes bytes = Golden(shape), network = shape.network ? Golden(shape) : ByteSwapped(shape);
        EXPECT_EQ(&SegmentRecordToStream(text, *RecordOf(bytes), false), &text);
        EXPECT_EQ(&SegmentRecordToStream(binary, *RecordOf(bytes), true), &binary);
        EXPECT_EQ(text.str(), "2,1,2,72623859790382856,3544952156018063160,4702394921427289928,1364349780," +
                                  std::to_string(shape.fptype) + ",," +
                                  (shape.taskIds != 0 ? "3,2,[65,18446744073709551614,9332165983064197000],[,,\xf0]"
                                                      : "0,0,[],[]"));
        EXPECT_EQ(binary.str(), std::string(network.begin(), network.end()));
        EXPECT_EQ(bytes, Golden(shape));
    }
}

TEST(ToStream, WritesTextOfAnyLength) {
    Bytes bytes = Golden({false, 1, 0, 0});
    bytes.insert(bytes.begin() + 96, 16, 'A');
    bytes.insert(bytes.begin() + 96, 16, 'B');
    bytes.insert(bytes.begin() + 96, 8 * 1000, 0xff);
    RecordOf(bytes)->ntaskids = 1000;
    RecordOf(bytes)->nfp = 2;
    std::ostringstream stream;
    SegmentRecordToStream(stream, *RecordOf(bytes), false);
    EXPECT_EQ(stream.str().find("]"), stream.str().find("[") + 1000 * 21);
    EXPECT_TRUE(stream.str().ends_with(",18446744073709551615],[B,A]"));
}

// The findings in `size` bytes, at most `most`.
Lines Findings(Bytes const& bytes, unsigned long size, unsigned int options, cr_status_t expected, std::size_t most) {
    std::pair<Lines, std::size_t> seen{{}, most};
    auto const see = [](cr_finding_t const* finding, void* context) {
        auto& [lines, limit] = *static_cast<std::pair<Lines, std::size_t>*>(context);
        std::ostringstream line;
        line << finding->code << ' ' << CRFindingName(finding->code) << ' ' << finding->field << '@' << finding->offset
             << ' ' << finding->found << '/' << finding->expected << ' '
             << (finding->severity == CR_FINDING_ERROR ? "error " : "") << finding->message;
        lines.push_back(line.str());
        return finding->struct_size == sizeof *finding && lines.size() < limit;
    };
    EXPECT_EQ(SegmentRecordDiagnose(bytes.data(), size, options, see, &seen), expected);
    EXPECT_EQ(SegmentRecordDiagnose(bytes.data(), size, options, nullptr, nullptr), expected);
    fuzz::AgreeOnSegmentRecord({bytes.data(), size}, options);
    return seen.first;
}

TEST(Diagnose, ReportsEveryErrorAndNote) {
    for (unsigned int const network : {0u, CR_SO_NETWORK_ORDER}) {
        Bytes bad = Golden({network != 0, 9, 3, 1}), odd = Golden({network != 0});
        std::memset(&odd[24], 0, 8); // no container's id, since the segment is in a file
        EXPECT_EQ(Findings(odd, 160, network, CR_STATUS_OK, 1), Lines{});
        SetLow(bad, network, 0, 2, 7);
        SetLow(bad, network, 4, 4, 99);
        std::memset(&bad[12], 0xff, 4); // the most task ids and fingerprints
        std::memset(&bad[52], 0xff, 4);
        bad[91] = 1; // odd, but notes are for good records
        std::string const text = " error Invalid SO record: ";
        Lines faults{"102 so-type type@0 7/2" + text + "type 7, expected 2",
                     "103 so-recsize recsize@4 99/144" + text + "recsize 99, size 144",
                     "104 so-calculated nfp@52 103079215184/144" + text + "calculated size 103079215184, size 144",
                     "105 so-taskids ntaskids@12 4294967295/0" + text + "4294967295 taskids, expected 0",
                     "106 so-fptype fptype@89 9/3" + text + "invalid fp type 9"};
        unsigned int const options = network | CR_SO_NO_TASKIDS;
        EXPECT_EQ(Findings(bad, 144, options, CR_STATUS_CORRUPT_RECORD, 99), faults);
        for (; !faults.empty(); faults.pop_back()) {
            EXPECT_EQ(Findings(bad, 144, options, CR_STATUS_CORRUPT_RECORD, faults.size()), faults);
        }
        for (int const trace : {0, 1}) { // validation traces the first one
            LogCapture log(trace);
            EXPECT_EQ(Validate(bad, options), CR_STATUS_CORRUPT_RECORD);
            EXPECT_EQ(Validate(odd, network ^ CR_SO_NETWORK_ORDER), kBig ? CR_STATUS_OK : CR_STATUS_CORRUPT_RECORD);
            EXPECT_EQ(Validate(odd, network), CR_STATUS_OK);
            std::string const second = kBig ? "" : "trace 0: Invalid SO record: type 512, expected 2\n";
            EXPECT_EQ(log.Take(), trace ? "trace 0: Invalid SO record: type 7, expected 2\n" + second : "");
        }
        LogCapture log(1);
        Bytes cut = Golden({network != 0, 1, 0, 0});
        EXPECT_EQ(Validate(cut, options), CR_STATUS_OK);
        cut.resize(100); // without all of the spare slot
        SetLow(cut, network, 4, 4, 100);
        EXPECT_EQ(Validate(cut, network), CR_STATUS_CORRUPT_RECORD);
        EXPECT_EQ(log.Take(), "trace 0: Invalid SO record: calculated size 104, size 100\n");
        for (unsigned int const unknown : {4u, 0x80000000u}) {
            EXPECT_EQ(Validate(cut, unknown), CR_STATUS_INVALID);
        }
        EXPECT_EQ(Validate({}, 0), CR_STATUS_INVALID);
        EXPECT_EQ(log.Take(), "");
        SetLow(odd, network, 2, 2, 6);
        std::memset(&odd[32], 0, 8);
        SetLow(odd, network, 24, 8, 63);
        odd[91] = 5;
        SetLow(odd, network, 152, 8, 9);
        Lines notes{"151 so-flags flags@2 6/0 flags 6, expected 0 or 2",
                    "152 so-dcid pathid@24 63/64 reserved container id 63, expected 1 or at least 64",
                    "153 so-reserved reserved@91 5/0 reserved byte 5, expected 0",
                    "154 so-spare spare@152 9/0 spare slot 9, expected 0"};
        for (; !notes.empty(); notes.pop_back()) {
            EXPECT_EQ(Findings(odd, 160, network, CR_STATUS_OK, notes.size()), notes);
        }
    }
    Bytes const good = Golden({false});
    EXPECT_EQ(Findings(good, 95, 0, CR_STATUS_CORRUPT_RECORD, 9),
              Lines{"101 so-length length@95 95/96 error Invalid SO record: size 95, expected at least 96"});
    EXPECT_EQ(Findings(good, (1ul << 32) + 160, 0, CR_STATUS_CORRUPT_RECORD, 1),
              Lines{"103 so-recsize recsize@4 160/4294967456 error Invalid SO record: recsize 160, size 4294967456"});
    EXPECT_EQ(Findings(good, 160, 4, CR_STATUS_INVALID, 1), Lines{});
    EXPECT_EQ(Findings({}, 160, 0, CR_STATUS_INVALID, 1), Lines{});
    Bytes contained = good;
    std::memset(&contained[24], 0, 16); // container and file
    for (unsigned long const dcid : {0ul, 1ul, 2ul, 63ul, 64ul}) {
        SetLow(contained, false, 24, 8, dcid);
        EXPECT_EQ(Findings(contained, 160, 0, CR_STATUS_OK, 9).empty(), dcid == 1 || dcid == 64) << dcid;
    }
    for (unsigned long const fileId : {0ul, 1ul, 1ul << 32}) {
        EXPECT_EQ(RecordInContainer(fileId), fileId == 0);
    }
}

} // namespace
