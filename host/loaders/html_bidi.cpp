#include "html_bidi.h"

#include "html_direction.h"
#include "html_mended.h"

#include <litehtml/el_space.h>
#include <litehtml/el_text.h>
#include <pango/pango.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ternview {
namespace {

using litehtml::element;

// Stands for a picture or a box in the text of a line.
constexpr std::string_view kObject = "\xEF\xBF\xBC";
constexpr std::string_view kRightToLeftOverride = "\xE2\x80\xAE";
constexpr std::string_view kEndOfOverride = "\xE2\x80\xAC";

/// A text that may be drawn in pieces.
class BidiText final : public litehtml::el_text {
public:
    struct Piece {
        std::string text;
        int offset;  // from the left edge
        int width;
    };

    using el_text::el_text;

    const std::string& shown() const { return m_use_transformed ? m_transformed_text : m_text; }
    void setPieces(std::vector<Piece> pieces) { m_pieces = std::move(pieces); }

    void draw(litehtml::uint_ptr device, int x, int y, const litehtml::position* clip) override {
        const element::ptr around = parent();
        if (m_pieces.empty() || around == nullptr) {
            el_text::draw(device, x, y, clip);
            return;
        }
        const std::shared_ptr<litehtml::document> document = get_document();
        const litehtml::web_color color = around->get_color("color", true, document->get_def_color());
        for (const Piece& piece : m_pieces) {
            const litehtml::position place(x + m_pos.x + piece.offset, y + m_pos.y, piece.width, m_pos.height);
            document->container()->draw_text(device, piece.text.c_str(), around->get_font(), color, place);
        }
    }

private:
    std::vector<Piece> m_pieces;
};

// ---- before layout

std::optional<PangoDirection> firstDirection(std::string_view text) {
    for (const char* at = text.data(); at < text.data() + text.size(); at = g_utf8_next_char(at)) {
        const gunichar c = g_utf8_get_char(at);
        if (isRightToLeftLetter(c)) {
            return PANGO_DIRECTION_RTL;
        }
        if (g_unichar_isalpha(c) != FALSE) {
            return PANGO_DIRECTION_LTR;
        }
    }
    return std::nullopt;
}

/// Of elements that are not empty, so that each is looked through once, however many around it ask.
using FirstDirections = std::unordered_map<const element*, std::optional<PangoDirection>>;

std::optional<PangoDirection> firstDirection(const element::ptr& from, FirstDirections& known) {
    if (from->get_children_count() == 0) {
        std::string text;
        from->get_text(text);
        return firstDirection(std::string_view(text));
    }
    if (const auto found = known.find(from.get()); found != known.end()) {
        return found->second;
    }
    std::optional<PangoDirection> direction;
    for (std::size_t i = 0; i < from->get_children_count() && !direction; ++i) {
        direction = firstDirection(from->get_child(static_cast<int>(i)), known);
    }
    known.emplace(from.get(), direction);
    return direction;
}

bool isRightToLeft(const element::ptr& of, bool inherited, FirstDirections& known) {
    const auto viewOf = [](const char* text) { return text == nullptr ? std::string_view() : text; };
    if (viewOf(of->get_attr("dir")) == "auto") {
        return firstDirection(of, known) == PANGO_DIRECTION_RTL;
    }
    const std::string_view direction = viewOf(of->get_style_property("direction", false, nullptr));
    return direction == "rtl" || (direction != "ltr" && inherited);
}

void replaceTexts(litehtml::html_tag& of) {
    for (element::ptr& child : of.children()) {
        const bool text = dynamic_cast<litehtml::el_text*>(child.get()) != nullptr &&
                          dynamic_cast<litehtml::el_space*>(child.get()) == nullptr && child->get_children_count() == 0;
        if (text) {
            std::string content;
            child->get_text(content);
            const auto replacement = std::make_shared<BidiText>(content.c_str(), of.get_document());
            replacement->parent(child->parent());
            replacement->parse_styles(false);
            child = replacement;
        }
    }
}

void prepare(const element::ptr& of, bool inherited, FirstDirections& known) {
    const bool rightToLeft = isRightToLeft(of, inherited, known);
    if (auto* mended = dynamic_cast<MendedElement*>(of.get())) {
        mended->setDirection(rightToLeft);
    }
    if (auto* tag = dynamic_cast<litehtml::html_tag*>(of.get())) {
        replaceTexts(*tag);
    }
    for (std::size_t i = 0; i < of->get_children_count(); ++i) {
        prepare(of->get_child(static_cast<int>(i)), rightToLeft, known);
    }
}

// ---- after layout

/// A part of a line that runs in one direction.
struct Run {
    element::ptr of;
    std::size_t begin = 0;  // in the text of the line
    std::size_t end = 0;
    int level = 0;
    int gap = 0;  // between it and what stands in front
    int width = 0;
    int left = 0;  // once it has been placed
};

struct Line {
    std::string text;
    std::vector<Run> runs;  // one for each element, in logical order
};

Line readLine(const litehtml::elements_vector& elements) {
    Line line;
    int right = elements.front()->left();
    for (const element::ptr& part : elements) {
        if (part->is_break()) {
            continue;
        }
        Run run{part, line.text.size(), 0, 0, part->left() - right, part->width()};
        right = part->right();
        if (const auto* text = dynamic_cast<BidiText*>(part.get())) {
            line.text += text->shown();
        } else {
            line.text += part->is_white_space() ? " " : kObject;
        }
        run.end = line.text.size();
        line.runs.push_back(std::move(run));
    }
    while (!line.runs.empty() && line.runs.back().of->is_white_space()) {
        line.text.resize(line.runs.back().begin);
        line.runs.pop_back();
    }
    return line;
}

/// The embedding level of each byte.
std::vector<std::uint8_t> levelsOf(const std::string& text, bool rightToLeft) {
    PangoDirection base = rightToLeft ? PANGO_DIRECTION_RTL : PANGO_DIRECTION_LTR;
    const std::unique_ptr<guint8, decltype(&g_free)> perCharacter(
        pango_log2vis_get_embedding_levels(text.data(), static_cast<int>(text.size()), &base), &g_free);
    std::vector<std::uint8_t> levels;
    levels.reserve(text.size());
    std::size_t character = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        character += at > 0 && (static_cast<unsigned char>(text[at]) & 0xC0) != 0x80 ? 1 : 0;
        levels.push_back(perCharacter.get()[character]);
    }
    return levels;
}

/// Takes texts apart where their level changes.
std::vector<Run> splitRuns(const Line& line, const std::vector<std::uint8_t>& levels) {
    std::vector<Run> result;
    for (const Run& whole : line.runs) {
        for (std::size_t begin = whole.begin; begin < whole.end;) {
            std::size_t end = begin;
            while (end < whole.end && levels[end] == levels[begin]) {
                ++end;
            }
            Run part = whole;
            part.begin = begin;
            part.end = end;
            part.level = levels[begin];
            part.gap = begin == whole.begin ? whole.gap : 0;
            if (begin != whole.begin || end != whole.end) {
                const std::string text = line.text.substr(begin, end - begin);
                part.width = whole.of->get_document()->container()->text_width(text.c_str(), whole.of->parent()->get_font());
            }
            result.push_back(std::move(part));
            begin = end;
        }
    }
    return result;
}

/// From logical to visual order: what has at least each level is turned around, from the highest level down to the first odd one.
void reorder(std::vector<Run>& runs) {
    int highest = 0;
    for (const Run& run : runs) {
        highest = std::max(highest, run.level);
    }
    for (int level = highest; level > 0; --level) {
        for (auto begin = runs.begin(); begin != runs.end();) {
            begin = std::find_if(begin, runs.end(), [level](const Run& run) { return run.level >= level; });
            const auto end = std::find_if(begin, runs.end(), [level](const Run& run) { return run.level < level; });
            std::reverse(begin, end);
            begin = end;
        }
    }
}

std::string drawnText(const std::string& line, const Run& run) {
    const std::string text = line.substr(run.begin, run.end - run.begin);
    const bool turned = run.level % 2 == 1 && !hasRightToLeftLetter(text);
    return turned ? std::string(kRightToLeftOverride) + text + std::string(kEndOfOverride) : text;
}

void place(const Line& line, std::vector<Run>& runs, int left) {
    for (Run& run : runs) {
        run.left = left + (run.level % 2 == 0 ? run.gap : 0);
        left += run.gap + run.width;
    }
    std::ranges::sort(runs, {}, &Run::begin);
    for (auto begin = runs.begin(); begin != runs.end();) {
        const auto end = std::find_if(begin, runs.end(), [begin](const Run& run) { return run.of != begin->of; });
        const int start = std::min_element(begin, end, [](const Run& a, const Run& b) { return a.left < b.left; })->left;
        element& of = *begin->of;
        of.get_position().x += start - of.left();
        if (auto* text = dynamic_cast<BidiText*>(&of)) {
            std::vector<BidiText::Piece> pieces;
            for (auto run = begin; run != end; ++run) {
                pieces.push_back({drawnText(line.text, *run), run->left - start, run->width});
            }
            text->setPieces(std::move(pieces));
        }
        begin = end;
    }
}

void orderLine(litehtml::box& box, bool rightToLeft) {
    litehtml::elements_vector elements;
    if (box.get_type() == litehtml::box_line) {
        box.get_elements(elements);
    }
    if (elements.empty()) {
        return;
    }
    const Line line = readLine(elements);
    if (line.runs.empty() || (!rightToLeft && !hasRightToLeftLetter(line.text))) {
        return;
    }
    std::vector<Run> runs = splitRuns(line, levelsOf(line.text, rightToLeft));
    reorder(runs);
    place(line, runs, elements.front()->left());
}

}  // namespace

void prepareDirections(const element::ptr& root) {
    FirstDirections known;
    prepare(root, false, known);
}

void orderLines(const element::ptr& root) {
    if (auto* mended = dynamic_cast<MendedElement*>(root.get())) {
        for (const litehtml::box::ptr& box : mended->lineBoxes()) {
            orderLine(*box, mended->isRightToLeft());
        }
        if (mended->isRightToLeft()) {
            mended->mirrorColumns();
        }
    }
    for (std::size_t i = 0; i < root->get_children_count(); ++i) {
        orderLines(root->get_child(static_cast<int>(i)));
    }
}

}  // namespace ternview
