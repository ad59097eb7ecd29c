// Files in the folder that the tasks of a run on many machines share.
//
// A file has numbered streams of items. Each stream is a chain of blocks: a block has the position of the one before
// it, and then items. The positions of the last blocks are at the end of the file, so that a task reads only the
// streams that it needs. Every block has a checksum. A file is written beside its name and renamed, so that a task that
// runs twice, or is killed, does no harm. Numbers are in the order of the machine: all machines of a run have the same
// one.

#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

namespace crrecord::tool {

struct WorkBlock {
    static constexpr std::uint64_t kNone = ~std::uint64_t{0};

    std::uint64_t offset = kNone;
    std::uint32_t size = 0; // in bytes, with the position of the block before it
    std::uint32_t crc = 0;
};

// The name of a work file is the digest of everything that its content depends on. The file contains it, too.
struct WorkName {
    std::string folder;
    std::string name; // 64 hexadecimal digits

    std::string Path() const { return folder + '/' + name; }
};

class WorkFileWriter {
public:
    // Throws: Failure if the file cannot be created; here and below, with its name and the system's reason.
    WorkFileWriter(WorkName name, std::uint32_t streams, std::size_t blockSize);
    // Removes a file that is not complete.
    ~WorkFileWriter();
    WorkFileWriter(WorkFileWriter const&) = delete;
    WorkFileWriter& operator=(WorkFileWriter const&) = delete;

    // Appends items, which no block divides. Throws: Failure.
    void Append(std::uint32_t stream, std::span<unsigned char const> items);
    template <class Item>
    void AppendItem(std::uint32_t stream, Item const& item) {
        static_assert(std::is_trivially_copyable_v<Item>);
        Append(stream, {reinterpret_cast<unsigned char const*>(&item), sizeof item});
    }
    void AppendText(std::uint32_t stream, std::string_view text) {
        Append(stream, {reinterpret_cast<unsigned char const*>(text.data()), text.size()});
    }

    // The file is complete and gets its name. Throws: Failure.
    void Commit();

private:
    struct Stream {
        WorkBlock last;
        std::vector<unsigned char> buffer;
    };

    WorkName name_;
    std::string temporary_;
    int file_;
    std::size_t blockSize_;
    std::uint64_t end_ = 0;
    std::vector<Stream> streams_;

    void Flush(Stream& stream);
    void Write(void const* bytes, std::size_t size);
};

class WorkFile {
public:
    // Throws: Failure if the file cannot be read, or is not a complete file of this name.
    explicit WorkFile(WorkName name);
    ~WorkFile();
    WorkFile(WorkFile const&) = delete;
    WorkFile& operator=(WorkFile const&) = delete;

    // Returns: the blocks of a stream in their order.
    std::vector<WorkBlock> Blocks(std::uint32_t stream) const;
    // Replaces `items` by those of a block. Throws: Failure if the checksum is wrong.
    template <class Item>
    void Read(WorkBlock const& block, std::vector<Item>& items) const {
        static_assert(std::is_trivially_copyable_v<Item>);
        std::size_t const size = block.size - sizeof block;
        if (size % sizeof(Item) != 0) {
            ThrowDamaged();
        }
        items.resize(size / sizeof(Item));
        ReadItems(block, items.data());
    }

    // Calls use(span of items) for each block of a stream, in their order.
    template <class Item, class Use>
    void ForEachBlock(std::uint32_t stream, Use use) const {
        std::vector<Item> items;
        for (WorkBlock const& block : Blocks(stream)) {
            Read(block, items);
            use(std::span<Item const>(items));
        }
    }

    [[noreturn]] void ThrowDamaged() const;

private:
    WorkName name_;
    int file_;
    std::uint64_t directory_ = 0; // the offset of the positions of the last blocks
    std::uint32_t streams_ = 0;

    void ReadFoot();
    void ReadItems(WorkBlock const& block, void* items) const;
    void ReadAt(void* to, std::size_t size, std::uint64_t offset) const;
};

} // namespace crrecord::tool
