// Keeps DO records in an embedded store, by key. Reads them in place and changes their references without reading.
//
//   store DATABASE put KEY RECORD             stores a record in its byte order
//   store DATABASE show KEY                   reads it in place
//   store DATABASE get KEY                    writes it, with its references, to standard output
//   store DATABASE add REFERENCE KEY...       adds a reference, such as task:17, to all of these records or to none
//   store DATABASE remove REFERENCE KEY...    removes it
//   store DATABASE move FROM TO KEY...        removes FROM and adds TO
//   store DATABASE check                      checks everything; the status is 1 if there is a fault

#include "record_store.h"

#include <crrecord/DORecordView.h>

#include <array>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

namespace {

void Put(RecordStore& store, std::string const& key, char const* path) {
    std::ifstream file(path, std::ios::binary);
    std::string const bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        throw std::runtime_error(std::string("cannot read ") + path);
    }
    store.Put(key, bytes);
    DORecordView const view(bytes.data(), bytes.size());
    std::cout << key << ": " << view.GetNfp() << " segments in " << bytes.size() << " bytes\n";
}

// The slices pin the values in the block cache of the store, if they have been flushed to a file. The view validates
// and reads the record there, without a copy. Returns: the exit status.
int Show(RecordStore const& store, std::string const& key) {
    StoredRecord stored;
    store.Read(key, stored);
    DORecordView const view(stored.record.data(), stored.record.size());
    std::cout << key << ": " << view.GetSize() << " bytes in " << view.GetNfp() << " segments\n";
    for (DOUniqueDCID const& entry : view.UniqueDCIDs()) {
        std::cout << "  container " << entry.dcid << ": " << entry.bytes << " bytes\n";
    }
    ReferenceChanges references;
    bool const decoded = !DecodeChanges({stored.references.data(), stored.references.size()}, references);
    auto const* const bytes = reinterpret_cast<unsigned char const*>(references.added.data());
    for (DOReference const& reference : DOReferenceRange(bytes, bytes + references.added.size())) {
        std::cout << "  kept by kind " << reference.kind << ", id " << reference.id << "\n";
    }
    if (!decoded || !references.undecoded.empty()) {
        std::cout << "  kept by references that could not be decoded: see check\n";
        return 1;
    }
    return 0;
}

void Get(RecordStore const& store, std::string const& key) {
    std::string const bytes = store.Get(key);
    if (!std::cout.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush()) {
        throw std::runtime_error("cannot write to standard output");
    }
}

// Returns: the serialized form of a reference in text form. DORecord adds these kinds only.
std::string Reference(std::string const& text) {
    unsigned long consumed = 0;
    _cr_tref_t* reference = CRTRefNewDeserialize(text.c_str(), text.size() + 1, CR_TREF_TEXT, &consumed);
    int const kind = reference ? CRTRefGetType(reference) : -1;
    std::array<char, CR_TREF_TEXT_SIZE> bytes{};
    unsigned long size = 0;
    if (kind == CR_REFTYPE_TASKID || kind == CR_REFTYPE_DSID || kind == 6 || kind == 9) {
        size = CRTRefSerialize(bytes.data(), bytes.size(), reference, CR_TREF_SERIALIZED);
    }
    CRTRefDelete(&reference);
    if (size == 0) {
        throw std::runtime_error("found \"" + text + "\", expected task:N, dsid:N, ref6:N or ref9:N");
    }
    return {bytes.data(), size};
}

// Either reference may be empty, for none.
void Change(RecordStore& store, std::string const& removed, std::string const& added, char** keys, char** end) {
    ReferenceChanges change;
    change.time = static_cast<std::uint32_t>(std::time(nullptr));
    change.added = added;
    change.removed = removed;
    store.Change({keys, end}, EncodeChanges(change));
}

int Check(RecordStore const& store) {
    int status = 0;
    store.Check([&](std::string const& fault) {
        std::cout << fault << "\n";
        status = 1;
    });
    return status;
}

// Returns: the exit status.
int Run(std::string const& verb, RecordStore& store, char** arguments, char** end) {
    if (verb == "put") {
        Put(store, arguments[0], arguments[1]);
    } else if (verb == "show") {
        return Show(store, arguments[0]);
    } else if (verb == "get") {
        Get(store, arguments[0]);
    } else if (verb == "add") {
        Change(store, "", Reference(arguments[0]), arguments + 1, end);
    } else if (verb == "remove") {
        Change(store, Reference(arguments[0]), "", arguments + 1, end);
    } else if (verb == "move") {
        Change(store, Reference(arguments[0]), Reference(arguments[1]), arguments + 2, end);
    } else {
        return Check(store);
    }
    return 0;
}

// Number of arguments after the verb: at least, and at most.
struct Verb {
    char const* name;
    int least;
    int most;
};
constexpr int kAny = 1 << 20;
constexpr Verb kVerbs[] = {{"put", 2, 2},       {"show", 1, 1},    {"get", 1, 1},  {"add", 2, kAny},
                           {"remove", 2, kAny}, {"move", 3, kAny}, {"check", 0, 0}};

} // namespace

int main(int argc, char** argv) try {
    for (Verb const& verb : kVerbs) {
        if (argc > 2 && argv[2] == std::string(verb.name) && argc - 3 >= verb.least && argc - 3 <= verb.most) {
            RecordStore store(argv[1], verb.name == std::string("put"));
            return Run(verb.name, store, argv + 3, argv + argc);
        }
    }
    std::cerr << "usage: store DATABASE put KEY RECORD | show KEY | get KEY | add REFERENCE KEY... |\n"
                 "       remove REFERENCE KEY... | move FROM TO KEY... | check\n";
    return 2;
} catch (std::exception const& error) {
    std::cerr << "store: " << error.what() << "\n";
    return 1;
}
