// crrecord map: a picture of one DO record.

#include "picture/lanes.h"
#include "picture/sections_bar.h"
#include "record/do_record.h"
#include "verbs/verbs.h"

#include <crrecord/do_types.h>

namespace crrecord::tool {

namespace {

struct MapOptions {
    std::string record;
    std::string out;
    FormOptions form;
};

// Long names are cut at their start: the end is mostly what differs between files.
std::string ShownName(std::string const& name) {
    constexpr std::size_t kMost = 80;
    return name.size() <= kMost ? name : "..." + name.substr(name.size() - kMost);
}

std::string Numbers(DORecordView const& view, Lanes const& lanes) {
    std::string const object = GroupedCount(view.GetSize(), "byte");
    if (IsBloom(view.GetDOType())) {
        return fmt::format("{}; a bloom record, which has no segments", object);
    }
    std::string const gaps =
        lanes.GapBytes() == 0 ? "" : fmt::format("; {} in gaps", GroupedCount(lanes.GapBytes(), "byte"));
    return fmt::format("{} in {}, {}, {}{}", object, GroupedCount(view.GetNfp(), "segment"),
                       GroupedCount(lanes.size(), "container"), GroupedCount(lanes.Fragments(), "fragment"), gaps);
}

std::string Draw(std::string const& name, DORecordView const& view, std::vector<Section> const& sections,
                 std::uint64_t size, std::string_view what) {
    Lanes lanes(view);
    Picture picture;
    picture.Text(Picture::kMargin, picture.Top() + 14, "name", ShownName(name));
    std::string const numbers = Numbers(view, lanes);
    picture.Text(Picture::kMargin, picture.Top() + 36, "weak",
                 fmt::format("DO type {}, {} fingerprints", view.GetDOType(), NameOfFingerprint(view.GetFPType())));
    picture.MoveDown(72);
    picture.Text(Picture::kMargin, picture.Top(), "heading",
                 fmt::format("The {}: {}", what, GroupedCount(size, "byte")));
    picture.MoveDown(12);
    DrawSections(picture, sections, size);
    picture.MoveDown(36);
    picture.Text(Picture::kMargin, picture.Top(), "heading", "The object");
    picture.Text(Picture::kMargin, picture.Top() + 20, "", numbers);
    picture.MoveDown(36);
    DrawLanes(picture, view, lanes);
    return picture.Finish(fmt::format("Map of {}: {}", ShownName(name), numbers));
}

std::string DrawRecord(std::string const& name, Record const& record) {
    std::vector<Section> const sections = Sections(record);
    if (record.kind == Kind::Form) {
        std::unique_ptr<DORecord> const made = OpenDORecord(name, record);
        auto const bytes = BytesOf(*made);
        return Draw(name, DORecordView(bytes.data(), bytes.size()), sections, record.size, "exchange form");
    }
    return Draw(name, DORecordView(record.bytes, record.size), sections, record.size, "record");
}

ExitCode Map(MapOptions const& options, Output& out) {
    RefuseToReplace({options.record}, options.out, "picture");
    RecordStream stream(options.record, options.form.Facts());
    SetUp(stream, options.form, nullptr);
    std::optional<OnlyRecord> const only = OnlyDORecord(stream);
    if (!only) {
        return ExitCode::BadRecord;
    }
    std::string const picture = DrawRecord(options.record, only->record);
    OutputFile to(options.out, {options.record});
    to.Write(picture.data(), picture.size());
    to.Commit();
    PrintClosing(out, options.out, false,
                 fmt::format("{}: picture of {}", Printable(options.out), Counted(picture.size(), "byte")));
    return only->hasDamage ? ExitCode::BadRecord : ExitCode::AllWell;
}

} // namespace

void AddMap(CLI::App& app, Action& chosen) {
    auto const [verb, options] = AddVerb(app, chosen, "map", "Draw a DO record and the containers of its object", Map);
    AddFile(verb, "RECORD", options.record, "The DO record; - is standard input")->required();
    AddOut(verb, options.out, "SVG file");
    AddFormOptions(verb, options.form);
    AddScan(verb, options.form);
    verb.footer(
        "At the top are the sections of the record, to scale. Below is the object from left to right, with a lane for\n"
        "each container. Equal records give equal pictures, byte for byte.\n\n"
        "Example:\n  crrecord map movie.do -o movie.svg");
}

} // namespace crrecord::tool
