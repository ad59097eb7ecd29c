#include "picture/svg.h"

#include "io/text.h"

namespace crrecord::tool {

namespace {

// Colours that the colour-blind can distinguish (after Okabe and Ito). Dark and light ones alternate, so that adjacent
// sections differ in print without colours.
constexpr char kStyle[] = R"svg(<style>
.paper{fill:#fff}text{fill:#1f2328;font:12px system-ui,"Segoe UI",Helvetica,Arial,sans-serif}
.name{font-size:20px;font-weight:600}.heading{font-size:15px;font-weight:600}.strong{font-weight:600}.weak{fill:#59636e}
.end{text-anchor:end}.middle{text-anchor:middle}.small{font-size:11px}
.lead,.axis{fill:none;stroke:#818b98}.lane{fill:#f1f3f5}.hatch{stroke:#59636e;stroke-width:1.2}
.s0{fill:#0072b2}.s1{fill:#f0d942}.s2{fill:#d55e00}.s3{fill:#56b4e9}.s4{fill:#7a3b69}.s5{fill:#e69f00}.s6{fill:#00664b}
.s7{fill:#b4b9bf}.first{fill:#0072b2}.again{fill:#e69f00}
.d0{fill:#a9d0ef;stroke:#a9d0ef}.d1{fill:#5aa0cf;stroke:#5aa0cf}
.d2{fill:#1f6fb0;stroke:#1f6fb0}.d3{fill:#082f5f;stroke:#082f5f}
@media (prefers-color-scheme:dark){.paper{fill:#0d1117}text{fill:#e6edf3}.weak{fill:#9198a1}.lane{fill:#1c2229}
.lead,.axis{stroke:#6e7681}.hatch{stroke:#9198a1}.s0,.first{fill:#2f8fd0}.s4{fill:#a8649a}.s6{fill:#1f8f70}
.d0{fill:#1d3f5e;stroke:#1d3f5e}.d1{fill:#2b6a9e;stroke:#2b6a9e}
.d2{fill:#62a9dd;stroke:#62a9dd}.d3{fill:#d3eaff;stroke:#d3eaff}}
</style>
<defs><pattern id="gap" width="5" height="5" patternUnits="userSpaceOnUse" patternTransform="rotate(45)">
<path class="hatch" d="M0 0v5"/></pattern></defs>
)svg";

} // namespace

void Picture::Text(double x, double y, std::string_view style, std::string_view text) {
    Print("<text x=\"{:.1f}\" y=\"{:.1f}\" class=\"{}\">{}</text>\n", x, y, style, XmlEscaped(text));
}

std::string Picture::Finish(std::string_view name) const {
    double const height = top_ + kMargin;
    return fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0} {1:.0f}\" width=\"{0}\" "
                       "height=\"{1:.0f}\" role=\"img\" aria-label=\"{2}\">\n{3}"
                       "<rect class=\"paper\" width=\"{0}\" height=\"{1:.0f}\"/>\n{4}</svg>\n",
                       kWidth, height, XmlEscaped(name), kStyle, std::string_view(body_.data(), body_.size()));
}

std::string XmlEscaped(std::string_view text) {
    std::string escaped;
    ForEachCharacter(text, [&escaped](std::uint32_t character, std::string_view bytes) {
        switch (character) {
        case '&': escaped += "&amp;"; break;
        case '<': escaped += "&lt;"; break;
        case '>': escaped += "&gt;"; break;
        case '"': escaped += "&quot;"; break;
        case kNotUtf8: escaped += "\uFFFD"; break;
        // XML allows these two neither directly nor escaped.
        case 0xfffe:
        case 0xffff: escaped += '?'; break;
        default: escaped += IsUnsafe(character) ? "?" : bytes;
        }
    });
    return escaped;
}

std::string Grouped(std::uint64_t number) {
    std::string const digits = std::to_string(number);
    std::string grouped;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i != 0 && (digits.size() - i) % 3 == 0) {
            grouped += "\u00a0";
        }
        grouped += digits[i];
    }
    return grouped;
}

std::string GroupedCount(std::uint64_t number, std::string_view noun) {
    return Grouped(number).append("\u00a0").append(noun).append(number == 1 ? "" : "s");
}

} // namespace crrecord::tool
