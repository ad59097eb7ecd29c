// Exchange forms of DO records, spelled as record_bytes.h spells the records.

#pragma once

#include "support/record_bytes.h"

// The text of a fingerprint.
inline std::string HexOf(Bytes const& bytes) {
    std::string text;
    for (unsigned char const byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

// Its own checksum covers the count and the first half of the entries' bytes.
inline Bytes SpellFormList(RecordValues const& values) {
    Bytes body;
    Put(body, values.list.size(), 4, true);
    for (auto const& [dcid, size] : values.list) {
        Put(body, dcid, 8, true);
        Put(body, size, 8, true);
    }
    Bytes bytes;
    Put(bytes, PlainAdler32(body.data(), body.data() + 4 + 8 * values.list.size()), 4, true);
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
}

// Sets the checksum over the bytes from 28 on.
inline void SumForm(Bytes& form) {
    Bytes sum;
    Put(sum, PlainAdler32(form.data() + 28, form.data() + form.size()), 4, true);
    std::copy(sum.begin(), sum.end(), form.begin() + 16);
}

inline Bytes SpellForm(RecordValues const& values, bool withChecksum) {
    Bytes form;
    Put(form, values.size, 8, true);
    Put(form, values.ssize, 8, true);
    Put(form, values.CRC, 4, true);
    Put(form, values.segments.size(), 4, true);
    Put(form, 0, 4, true);
    if (values.dotype == 4) {
        Put(form, values.bitmap.size(), 4, true);
        form.insert(form.end(), values.bitmap.begin(), values.bitmap.end());
        Bytes const list = values.list.empty() ? Bytes() : SpellFormList(values);
        form.insert(form.end(), list.begin(), list.end());
        PutZeros(form, values.list.empty() ? 24 : 16);
    } else {
        for (SegmentValues const& segment : values.segments) {
            std::string const text = HexOf(segment.fingerprint);
            form.insert(form.end(), text.c_str(), text.c_str() + text.size() + 1);
            Put(form, segment.size, values.dotype < 2 ? 0 : 4, true);
            Put(form, segment.offset, values.dotype == 3 ? 8 : values.dotype == 5 ? 4 : 0, true);
        }
        PutZeros(form, 1);
        for (SegmentValues const& segment : values.segments) {
            Put(form, segment.dcid, 8, true);
        }
    }
    if (withChecksum || values.dotype == 4) {
        SumForm(form);
    }
    return form;
}
