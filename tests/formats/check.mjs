// Reads the golden records through the format descriptions and compares every field with what the command shows.
//
//   node check.mjs FOLDER-WITH-node_modules COMMAND

import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { readFileSync, readdirSync } from "node:fs";
import { createRequire } from "node:module";
import { resolve } from "node:path";

const [modules, command] = process.argv.slice(2);
const require = createRequire(resolve(modules, "package.json"));
const { KaitaiStream } = require("kaitai-struct");
const file = (path) => new URL(`../../${path}`, import.meta.url);

// The runtime reads 64-bit numbers with the 53 bits of JavaScript's own. Here they become text, as in the command's.
for (const [name, littleEndian] of [["readU8le", true], ["readU8be", false]]) {
    KaitaiStream.prototype[name] = function () {
        return String(new DataView(new Uint8Array(this.readBytes(8)).buffer).getBigUint64(0, littleEndian));
    };
}
const ksy = require("js-yaml").load(readFileSync(file("formats/crrecord.ksy"), "utf8"));
const { Crrecord } = await (async (generated) => {
    const code = await require("kaitai-struct-compiler").compile("javascript", ksy, null, false);
    new Function("exports", "require", code["Crrecord.js"])(generated, require);
    return generated;
})({});
const hexpat = readFileSync(file("formats/crrecord.hexpat"), "utf8");

// Name, offset, size and fixed order of the fields in front of the first whose size depends on another.
function headOf(fields) {
    let offset = 0;
    return fields.slice(0, fields.findIndex(([, size]) => !Number.isInteger(size)))
        .map(([name, size, order]) => [name, (offset += size) - size, size, order]);
}
const headInKsy = (type) => headOf(ksy.types[type].seq.map((field) => {
    const [, bytes, order] = /^u(\d)(le)?$/.exec(field.type) ?? [];
    return [field.id, field.repeat ? NaN : field.size ?? field.contents?.length ?? Number(bytes), order];
}));
function headInHexpat(struct) {
    const [, body] = new RegExp(`^struct ${struct}\\b[^{]*\\{([^}]*)`, "m").exec(hexpat);
    return headOf(body.trim().split("\n").map((line) => {
        const [, order, bits, name, count = 1] = /^(?:(le) |be )?u(\d+) (\w+)(?:\[(.*)\])?;$/.exec(line.trim()) ?? [];
        return [name, bits / 8 * Number(count), order];
    }));
}
for (const struct of ["SegmentRecord", "DORecord", "SegmentForm", "DOForm"]) {
    const type = struct.replace(/(Record|Form)/, "_$1").toLowerCase();
    assert.ok(headInKsy(type).length >= 5);
    assert.deepEqual(headInHexpat(struct), headInKsy(type), `crrecord.hexpat's ${struct}, crrecord.ksy's ${type}`);
}

const hex = (bytes) => Buffer.from(bytes).toString("hex");
const header = (type, { crc, cid, reserved2, ...record }) => ({
    CRC: crc, ...(cid && { CID: cid, reserved2: [...reserved2] }),
    ...Object.fromEntries(headInKsy(type).filter(([name]) => name in record).map(([name]) => [name, record[name]])) });
const segmentMembers = ({ taskids, fingerprints, spare, ...record }) => ({
    ...header("segment_record", record), key: hex(record.key), taskids, fingerprints: fingerprints.map(hex), spare });
const reference = (kind, id) => `${{ 2: "task", 4: "dsid" }[kind] ?? `ref${kind}`}:${id}`;
const containers = (unique) => (unique?.entries ?? []).map(({ dcid, bytes }) => ({ dcid, bytes }));
const segments = ({ entries, dcids, ...record }, text) => entries.map(({ fingerprint, size, offset }, index) => ({
    index, fingerprint: text(fingerprint), dcid: dcids[index], ...(offset !== undefined && { offset: String(offset) }),
    size: size ?? Math.min(record.ssize, record.size - record.ssize * index) }));
const objectMembers = ({ bloom, unique, tail, ...record }, shown) => ({
    ...header("do_record", record), ...(bloom && { bitmap: hex(bloom.bitmap) }), containers: containers(unique),
    nudcid: unique?.count ?? 0, segments: segments(record, hex),
    references: record.references.items.map(({ kind, id }) => reference(kind, id)),
    legacy_references: [...record.legacyTaskids.map((id) => reference(2, id)),
                        ...record.legacyDsids.map((id) => reference(4, id))],
    // What the command shows only where a canonical record has something else.
    ...("list_checksum" in shown && { list_checksum: unique.checksum }),
    ...(bloom && bloom.length !== record.bsize && { bloom_length: bloom.length }),
    ...(bloom?.zeros.some(Boolean) && { bloom_zeros: hex(bloom.zeros) }),
    ...(tail.some(Boolean) && { tail: hex(tail) }) });
const formMembers = ({ size, ssize, crc, nfp, bloom, ...rest }) => ({
    size, ssize, CRC: crc, nfp, bsize: bloom?.bsize ?? 0, ...(bloom && { bitmap: hex(bloom.bitmap) }),
    containers: containers(bloom?.unique), segments: segments({ size, ssize, ...rest }, String) });

const pathOf = (name) => file(`tests/golden/${name}`).pathname;
const show = (name, ...options) =>
    JSON.parse(execFileSync(command, ["show", "--json", "--show-keys", ...options, pathOf(name)]));
// Compares what `read` makes of the file, which it has to read to its end, with those members that it names or all.
function compare(name, shown, all, read) {
    const io = new KaitaiStream(readFileSync(pathOf(name)), 0);
    const members = read(io);
    const expected = Object.entries(shown).filter(([member]) => all || member in members);
    assert.deepEqual(members, Object.fromEntries(expected), name);
    assert.ok(io.isEof(), `${name}: bytes behind the end`);
}
for (const name of readdirSync(file("tests/golden")).filter((entry) => entry.endsWith(".host"))) {
    const { dotype, fptype, kind } = show(name);
    for (const recordName of [name, name.replace(".host", ".network")]) {
        const { file: _, schema, record, offset, kind: __, order, valid, ...shown } = show(recordName);
        compare(recordName, shown, true, (io) => {
            const { body } = new Crrecord(io).records[0];
            assert.equal(body.isNetwork, order === "network");
            return kind === "do" ? objectMembers(body, shown) : segmentMembers(body);
        });
    }
    const form = name.replace(".host", ".form");
    if (kind === "do") {
        compare(form, show(form, "--serialized", "--dotype", dotype, "--fptype", fptype), false,
                (io) => formMembers(new Crrecord.DoForm(io, null, null, dotype, fptype)));
    } else {
        compare(form, show(name), false, (io) => {
            const read = new Crrecord.SegmentForm(io, null, null, fptype);
            return { ...header("segment_form", read), fingerprints: read.fingerprints };
        });
    }
}
