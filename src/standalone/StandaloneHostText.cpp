// Default texts of localisable strings (see LocalizeDefaultText in mc/standalone/StandaloneHost.h).
#include <string>
#include <string_view>

#include "mc/host/TextConvert.h"
#include "mc/standalone/StandaloneHost.h"

namespace velacore {
namespace {

constexpr std::string_view kCommentMark = "{{*COMMENT*}}";

// The host's markup and the UTF-8 text standing for it.
struct Markup {
    std::string_view tag;
    std::string_view utf8;
};
constexpr Markup kMarkups[] = {{"#{rsquo}", "\xE2\x80\x99"}};

std::string ResolveMarkup(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    size_t at = 0;
    while (at < text.size()) {
        bool replaced = false;
        for (const Markup& m : kMarkups) {
            if (text.substr(at, m.tag.size()) == m.tag) {
                out += m.utf8;
                at += m.tag.size();
                replaced = true;
                break;
            }
        }
        if (!replaced) out += text[at++];
    }
    return out;
}

}  // namespace

std::u16string LocalizeDefaultText(std::string_view keyAndDefault) {
    std::string_view text = keyAndDefault;
    if (size_t note = text.find(kCommentMark); note != std::string_view::npos) {
        text = text.substr(0, note);  // the translator's note may hold '=' too
    }
    if (size_t eq = text.find('='); eq != std::string_view::npos) text.remove_prefix(eq + 1);
    return ToUtf16(ResolveMarkup(text));
}

}  // namespace velacore
