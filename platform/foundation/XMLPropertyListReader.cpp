#include <charconv>
#include <chrono>
#include <pugixml.hpp>

#include "platform/foundation/ExpansionBudget.h"
#include "platform/foundation/QSPropertyList.h"
#include "platform/foundation/QSUnicode.h"

namespace platform {

namespace {

std::unexpected<QSError> corrupt(std::string_view what) {
    return std::unexpected(mochaError(QSFileReadCorruptFileError, what));
}

std::unexpected<QSError> tooFar() {
    return corrupt("the property list expands too far");
}

template <typename T>
std::optional<T> number(std::string_view text, int base = 10) requires std::integral<T> {
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

/// The length of the reference at the front of `text`, 0 where it is none that XML itself defines:
/// the parser would leave it as it stands, or end the text at a NUL.
std::size_t lengthOfReference(std::string_view text) {
    const auto end = text.substr(0, 12).find(';');
    if (end == std::string_view::npos) return 0;
    auto name = text.substr(1, end - 1);
    for (const std::string_view known : {"amp", "lt", "gt", "quot", "apos"}) {
        if (name == known) return end + 1;
    }
    if (!name.starts_with('#')) return 0;
    name.remove_prefix(1);
    const bool isHex = name.starts_with('x');
    const auto value = number<std::uint32_t>(name.substr(isHex ? 1 : 0), isHex ? 16 : 10);
    return value && *value != 0 && *value <= 0x10FFFF ? end + 1 : 0;
}

/// What the parser would let pass, or take too much memory for; empty where it may go on. Bounds
/// the nodes of the document by counting "<" before any is made.
std::string_view flawOfText(std::string_view text, std::size_t tags) {
    for (std::size_t i = 0; i < text.size();) {
        const char c = text[i];
        if (c == '\0') return "the text holds a NUL";
        if (c == '<') {
            if (tags-- == 0) return "the property list has too many elements";
            constexpr std::string_view verbatim = "<![CDATA[";
            if (text.substr(i).starts_with(verbatim)) {
                const auto end = text.find("]]>", i);
                if (end == std::string_view::npos) return "the text is cut off";
                if (text.substr(i, end - i).find('\0') != std::string_view::npos) {
                    return "the text holds a NUL";
                }
                i = end;
                continue;
            }
        } else if (c == '&') {
            const auto length = lengthOfReference(text.substr(i));
            if (length == 0) return "an entity is unknown";
            i += length;
            continue;
        }
        ++i;
    }
    return {};
}

std::optional<int> digits(std::string_view text, std::size_t position, std::size_t count) {
    return number<std::uint16_t>(text.substr(position, count));
}

/// "2026-01-31T09:15:00Z", nothing else.
std::optional<QSDate> dateFromText(std::string_view text) {
    using namespace std::chrono;
    constexpr std::string_view form = "0000-00-00T00:00:00Z";
    if (text.size() != form.size()) return std::nullopt;
    for (std::size_t i = 0; i < form.size(); ++i) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        if (form[i] == '0' ? !isDigit : text[i] != form[i]) return std::nullopt;
    }
    const auto part = [&](std::size_t position, std::size_t count = 2) {
        return digits(text, position, count).value_or(0);
    };
    const year_month_day date{year(part(0, 4)), month(static_cast<unsigned>(part(5))),
                              day(static_cast<unsigned>(part(8)))};
    if (!date.ok() || part(11) > 23 || part(14) > 59 || part(17) > 59) return std::nullopt;
    const auto point = sys_days(date) + hours(part(11)) + minutes(part(14)) + seconds(part(17));
    return QSDate{sys_seconds(point).time_since_epoch().count(), 0};
}

/// Base 64; white space may stand anywhere, padding must be right.
std::optional<QSData> dataFromText(std::string_view text) {
    constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    QSData data;
    std::uint32_t bits = 0;
    std::size_t characters = 0;
    std::size_t padding = 0;
    for (const char c : text) {
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n') continue;
        ++characters;
        if (c == '=') {
            ++padding;
            continue;
        }
        const auto value = alphabet.find(c);
        if (value == std::string_view::npos || padding > 0) return std::nullopt;
        bits = bits << 6 | static_cast<std::uint32_t>(value);
        const auto full = characters % 4;
        if (full != 1)
            data.push_back(static_cast<std::uint8_t>(bits >> (full == 0 ? 0 : 8 - 2 * full)));
    }
    if (characters % 4 != 0 || padding > 2) return std::nullopt;
    return data;
}

class Reader {
  public:
    explicit Reader(const QSPropertyListLimits& limits)
        : limits_(limits), budget_(limits.expandedBytes) {}

    Result<QSPropertyList> element(pugi::xml_node node, std::size_t depth) {
        const std::string_view name = node.name();
        if (name == "dict" || name == "array") {
            if (depth == limits_.depth) return corrupt("the property list is nested too deeply");
            return name == "dict" ? dictionary(node, depth + 1) : array(node, depth + 1);
        }
        const auto content = text(node);
        if (!content) return std::unexpected(content.error());
        return scalar(name, *content);
    }

  private:
    static Result<QSPropertyList> scalar(std::string_view name, const std::string& content) {
        if (name == "string") return content;
        if ((name == "true" || name == "false") && content.empty()) return name == "true";
        if (name == "integer") {
            if (const auto value = number<std::int64_t>(content)) return *value;
            if (const auto value = number<std::uint64_t>(content)) return *value;
        } else if (name == "real") {
            double value = 0;
            const char* const end = content.data() + content.size();
            const auto parsed = std::from_chars(content.data(), end, value);
            if (parsed.ec == std::errc{} && parsed.ptr == end) return value;
        } else if (name == "date") {
            if (const auto value = dateFromText(content)) return *value;
        } else if (name == "data") {
            if (auto value = dataFromText(content)) return std::move(*value);
        }
        return corrupt("an element is unknown or malformed");
    }

    Result<std::string> text(pugi::xml_node node) {
        std::string result;
        for (const auto child : node.children()) {
            if (child.type() == pugi::node_element) return corrupt("an element stands within text");
            const std::string_view part = child.value();
            if (!budget_.spend(part.size())) return tooFar();
            result += part;
        }
        if (!isUTF8(result)) return corrupt("a string is not UTF-8");
        return result;
    }

    /// The next child that is an element, from `node` on; fails where text stands in between.
    static Result<pugi::xml_node> elementFrom(pugi::xml_node node) {
        for (; node && node.type() != pugi::node_element; node = node.next_sibling()) {
            if (std::string_view(node.value()).find_first_not_of(" \t\r\n") !=
                std::string_view::npos) {
                return corrupt("text stands between elements");
            }
        }
        return node;
    }

    Result<QSPropertyList> array(pugi::xml_node node, std::size_t depth) {
        QSPropertyList::Array elements;
        for (auto next = elementFrom(node.first_child());;
             next = elementFrom(next->next_sibling())) {
            if (!next) return std::unexpected(next.error());
            if (!*next) return elements;
            // The array doubles as it grows, old and new for a moment side by side.
            if (!budget_.spend(3 * sizeof(QSPropertyList))) return tooFar();
            auto value = element(*next, depth);
            if (!value) return value;
            elements.push_back(std::move(*value));
        }
    }

    Result<QSPropertyList> dictionary(pugi::xml_node node, std::size_t depth) {
        QSPropertyList::Dictionary entries;
        auto next = elementFrom(node.first_child());
        while (next && *next) {
            if (std::string_view(next->name()) != "key") return corrupt("a value has no key");
            if (!budget_.spend(ExpansionBudget::dictionaryEntry)) return tooFar();
            auto key = text(*next);
            if (!key) return std::unexpected(key.error());
            next = elementFrom(next->next_sibling());
            if (!next) break;
            if (!*next) return corrupt("a key has no value");
            auto value = element(*next, depth);
            if (!value) return value;
            if (!entries.emplace(std::move(*key), std::move(*value)).second) {
                return corrupt("a key occurs twice");
            }
            next = elementFrom(next->next_sibling());
        }
        if (!next) return std::unexpected(next.error());
        return entries;
    }

    const QSPropertyListLimits& limits_;
    ExpansionBudget budget_;
};

}  // namespace

Result<QSPropertyList> propertyListWithXMLData(QSDataView data,
                                               const QSPropertyListLimits& limits) {
    if (data.size() > limits.bytes) return corrupt("the property list is too large");
    if (const auto flaw = flawOfText(stringFromData(data), limits.objects / 2); !flaw.empty()) {
        return corrupt(flaw);
    }
    pugi::xml_document document;
    constexpr unsigned options =
        pugi::parse_default | pugi::parse_ws_pcdata_single | pugi::parse_doctype;
    if (!document.load_buffer(data.data(), data.size(), options, pugi::encoding_utf8)) {
        return corrupt("not well-formed XML");
    }
    for (const auto node : document.children()) {
        if (node.type() == pugi::node_doctype &&
            std::string_view(node.value()).find('[') != std::string_view::npos) {
            return corrupt("the document type has declarations");
        }
    }
    const auto root = document.document_element();
    if (root.next_sibling() || std::string_view(root.name()) != "plist")
        return corrupt("no property list in the XML");
    pugi::xml_node value;
    for (const auto node : root.children()) {
        if (node.type() == pugi::node_element && !value) {
            value = node;
        } else {
            return corrupt("a property list has one value");
        }
    }
    return Reader(limits).element(value, 0);
}

}  // namespace platform
