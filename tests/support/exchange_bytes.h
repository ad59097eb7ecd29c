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

// Its checksum covers the count and the first half of the entries' bytes.
inline Bytes SpellFormList(RecordValues const& values) {
    Bytes const body = SpellListBody(values, true);
    Bytes bytes = Spelled(PlainAdler32(body.data(), body.data() + 4 + 8 * values.list.size()), 4, true);
    PutBytes(bytes, body);
    return bytes;
}

// Sets the checksum over the bytes from 28 on.
inline void SumForm(Bytes& form) {
    Splice(form, 16, Spelled(PlainAdler32(form.data() + 28, form.data() + form.size()), 4, true));
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
        PutBytes(form, values.bitmap);
        PutBytes(form, values.list.empty() ? Bytes() : SpellFormList(values));
        PutBytes(form, Bytes(values.list.empty() ? 24 : 16));
    } else {
        RecordValues texts = values;
        for (SegmentValues& segment : texts.segments) {
            std::string const text = HexOf(segment.fingerprint);
            segment.fingerprint.assign(text.c_str(), text.c_str() + text.size() + 1);
        }
        PutBytes(form, SpellEntries(texts, true));
        PutBytes(form, Bytes(1));
        for (SegmentValues const& segment : values.segments) {
            Put(form, segment.dcid, 8, true);
        }
    }
    if (withChecksum || values.dotype == 4) {
        SumForm(form);
    }
    return form;
}
