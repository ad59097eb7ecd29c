# Kaitai Struct (https://kaitai.io) description of consecutive DO records and segment records, in either byte order, and of
# their exchange forms. docs/format.md describes the fields. A reader requires valid records; `crrecord validate` checks
# them.
meta:
  id: crrecord
  title: DO records and segment records
  endian: le
  ks-version: "0.10"
doc: |
  Fields that a conversion does not byte-swap are in the order of the machine that built the record. This description
  assumes a little-endian machine and gives them types such as u4le.
seq:
  - id: records
    type: record
    repeat: eos
types:
  record:
    doc: A record is in network order if and only if its type, 2 or 3, is its second byte.
    seq:
      - id: body
        type:
          switch-on: type_le
          cases:
            0x0002: segment_record(false)
            0x0200: segment_record(true)
            0x0003: do_record(false)
            0x0300: do_record(true)
    instances:
      type_le:
        pos: _io.pos
        type: u2le
        valid:
          any-of: [0x0002, 0x0200, 0x0003, 0x0300]

  segment_record:
    params:
      - id: is_network
        type: bool
    meta:
      endian:
        switch-on: is_network
        cases:
          true: be
          false: le
    seq:
      - {id: type, type: u2}
      - {id: flags, type: u2}
      - {id: recsize, type: u4}
      - {id: word8, type: u4}
      - {id: ntaskids, type: u4}
      - {id: checktime, type: u4}
      - {id: word20, type: u4le}
      - {id: pathid, type: u8}
      - {id: fileid, type: u8}
      - {id: size, type: u8}
      - {id: crc, type: u4}
      - {id: nfp, type: u4}
      - {id: key, size: 33}
      - {id: fptype, type: u1}
      - {id: cryptomode, type: u1}
      - {id: reserved, type: u1}
      - {id: keyindex, type: u2le}
      - {id: word94, type: u2le}
      - id: taskids
        type: u8
        repeat: expr
        repeat-expr: ntaskids
      - id: fingerprints
        size: "fptype == 3 ? 32 : 16"
        repeat: expr
        repeat-expr: nfp
      - id: spare
        type: u8
        doc: A conversion does not change this field, so it may be in either order.

  do_record:
    params:
      - id: is_network
        type: bool
    meta:
      endian:
        switch-on: is_network
        cases:
          true: be
          false: le
    seq:
      - {id: type, type: u2}
      - {id: flags, type: u2}
      - {id: recsize, type: u4}
      - {id: reserved, type: u4le}
      - {id: checktime, type: u4}
      - {id: cid, type: u8}
      - {id: size, type: u8}
      - {id: ssize, type: u8}
      - {id: crc, type: u4}
      - {id: ctime, type: u4}
      - {id: mtime, type: u4}
      - {id: ntaskid, type: u4le}
      - {id: nfp, type: u4}
      - {id: nudcid, type: u4}
      - {id: nds, type: u4le}
      - {id: trefssize, type: u4}
      - {id: bsize, type: u4}
      - {id: fptype, type: u1}
      - {id: dotype, type: u1}
      - {id: reserved2, size: 2}
      - id: entries
        type: entry
        repeat: expr
        repeat-expr: segments
      - id: dcids
        type: u8le
        repeat: expr
        repeat-expr: segments
      - id: bloom
        type: bloom
        if: dotype == 4
      - id: unique
        type: unique_list
        if: nudcid != 0
      - id: legacy_taskids
        type: u8le
        repeat: expr
        repeat-expr: ntaskid
      - id: legacy_dsids
        type: u4le
        repeat: expr
        repeat-expr: nds
      - id: references
        type: references
        size: trefssize
      - id: tail
        size: "dotype == 4 ? 4 : 24"
    instances:
      segments:
        value: "dotype == 4 ? 0 : nfp"
    types:
      entry:
        seq:
          - id: fingerprint
            size: "_parent.fptype == 3 ? 32 : 16"
          - id: size
            type: u4
            if: _parent.dotype > 1
          - id: offset
            type:
              switch-on: _parent.dotype
              cases:
                3: u8
                5: u4
            if: _parent.dotype == 3 or _parent.dotype == 5
      bloom:
        seq:
          - {id: length, type: u4}
          - {id: bitmap, size: _parent.bsize}
          - {id: zeros, size: 16}
      unique_list:
        seq:
          - {id: checksum, type: u4le}
          - {id: count, type: u4}
          - id: entries
            type: unique_entry
            repeat: expr
            repeat-expr: _parent.nudcid
      unique_entry:
        seq:
          - {id: dcid, type: u8le}
          - {id: bytes, type: u8le}

  references:
    seq:
      - id: items
        type: reference
        repeat: eos
  reference:
    seq:
      - {id: kind, type: u1}
      - {id: length, type: u1}
      - id: id
        type:
          switch-on: length
          cases:
            4: u4be
            8: u8be

  segment_form:
    doc: The serialized form of a segment record, which SegmentRecordSerialize writes.
    params:
      - id: fptype
        type: u1
    meta:
      endian: be
    seq:
      - {id: size, type: u8}
      - {id: pathid, type: u8}
      - {id: fileid, type: u8}
      - {id: crc, type: u4}
      - {id: nfp, type: u4}
      - id: fingerprints
        type: strz
        size: "fptype == 3 ? 65 : 33"
        encoding: ASCII
        repeat: expr
        repeat-expr: nfp
      - id: end
        contents: [0]

  do_form:
    doc: The exchange form of a DO record.
    params:
      - id: dotype
        type: u1
      - id: fptype
        type: u1
    meta:
      endian: be
    seq:
      - {id: size, type: u8}
      - {id: ssize, type: u8}
      - {id: crc, type: u4}
      - {id: nfp, type: u4}
      - id: zero
        contents: [0, 0, 0, 0]
      - id: entries
        type: entry
        repeat: expr
        repeat-expr: nfp
      - id: separator
        contents: [0]
        if: dotype != 4
      - id: dcids
        type: u8
        repeat: expr
        repeat-expr: nfp
      - id: bloom
        type: bloom
        if: dotype == 4
    types:
      entry:
        seq:
          - id: fingerprint
            type: strz
            size: "_parent.fptype == 3 ? 65 : 33"
            encoding: ASCII
          - id: size
            type: u4
            if: _parent.dotype > 1
          - id: offset
            type:
              switch-on: _parent.dotype
              cases:
                3: u8
                5: u4
            if: _parent.dotype == 3 or _parent.dotype == 5
      bloom:
        doc: The form has a list if and only if more than 24 bytes follow the bitmap.
        seq:
          - {id: bsize, type: u4}
          - {id: bitmap, size: bsize}
          - id: unique
            type: unique_list
            if: _io.size - _io.pos > 24
          - id: zeros
            size-eos: true
      unique_list:
        seq:
          - {id: checksum, type: u4}
          - {id: count, type: u4}
          - id: entries
            type: unique_entry
            repeat: expr
            repeat-expr: count
      unique_entry:
        seq:
          - {id: dcid, type: u8}
          - {id: bytes, type: u8}
