#include "formats/StrictJson.h"

#include <QJsonArray>
#include <QJsonObject>

#include <clocale>
#include <cstdlib>
#include <locale.h>

namespace {

// Deeper than any manifest or state record; keeps the recursion well inside the stack.
constexpr int kMaxDepth = 512;

class Parser {
public:
    explicit Parser(const QByteArray& text) : text_(text) {}

    StrictJson run() {
        if (text_.startsWith("\xEF\xBB\xBF"))
            at_ = 3;
        skipBlanks();
        if (peek() != '{' && peek() != '[')
            return failure(QStringLiteral("expected an object or an array"));
        QJsonValue value;
        if (!parseValue(value, 0))
            return failure(error_);
        skipBlanks();
        if (at_ != text_.size())
            return failure(QStringLiteral("unexpected text after the end"));
        return StrictJson{value, QString()};
    }

private:
    const QByteArray& text_;
    qsizetype at_ = 0;
    QString error_;

    StrictJson failure(const QString& reason) const {
        return StrictJson{QJsonValue(QJsonValue::Undefined),
                          QStringLiteral("%1 at offset %2").arg(reason).arg(at_)};
    }
    bool fail(const QString& reason) {
        error_ = reason;
        return false;
    }

    char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
    bool atEnd() const { return at_ >= text_.size(); }

    void skipBlanks() {
        while (!atEnd() && (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r'))
            ++at_;
    }

    bool literal(const char* word, QJsonValue value, QJsonValue& out) {
        const QByteArray expected(word);
        if (text_.mid(at_, expected.size()) != expected)
            return fail(QStringLiteral("illegal value"));
        at_ += expected.size();
        out = value;
        return true;
    }

    bool parseValue(QJsonValue& out, int depth) {
        skipBlanks();
        switch (peek()) {
        case '{': return parseObject(out, depth + 1);
        case '[': return parseArray(out, depth + 1);
        case '"': {
            QString text;
            if (!parseString(text))
                return false;
            out = text;
            return true;
        }
        case 't': return literal("true", true, out);
        case 'f': return literal("false", false, out);
        case 'n': return literal("null", QJsonValue(QJsonValue::Null), out);
        default: return parseNumber(out);
        }
    }

    bool parseObject(QJsonValue& out, int depth) {
        if (depth > kMaxDepth)
            return fail(QStringLiteral("too deeply nested"));
        ++at_; // '{'
        QJsonObject object;
        skipBlanks();
        if (peek() == '}') {
            ++at_;
            out = object;
            return true;
        }
        for (;;) {
            skipBlanks();
            if (peek() != '"')
                return fail(QStringLiteral("expected a key"));
            QString key;
            if (!parseString(key))
                return false;
            skipBlanks();
            if (peek() != ':')
                return fail(QStringLiteral("expected a colon"));
            ++at_;
            QJsonValue member;
            if (!parseValue(member, depth))
                return false;
            object.insert(key, member);
            skipBlanks();
            if (peek() == ',') {
                ++at_;
                continue;
            }
            if (peek() == '}') {
                ++at_;
                out = object;
                return true;
            }
            return fail(atEnd() ? QStringLiteral("unterminated object")
                                : QStringLiteral("expected a comma or the end of the object"));
        }
    }

    bool parseArray(QJsonValue& out, int depth) {
        if (depth > kMaxDepth)
            return fail(QStringLiteral("too deeply nested"));
        ++at_; // '['
        QJsonArray array;
        skipBlanks();
        if (peek() == ']') {
            ++at_;
            out = array;
            return true;
        }
        for (;;) {
            QJsonValue element;
            if (!parseValue(element, depth))
                return false;
            array.append(element);
            skipBlanks();
            if (peek() == ',') {
                ++at_;
                continue;
            }
            if (peek() == ']') {
                ++at_;
                out = array;
                return true;
            }
            return fail(atEnd() ? QStringLiteral("unterminated array")
                                : QStringLiteral("expected a comma or the end of the array"));
        }
    }

    bool hexDigits(char32_t& unit) {
        unit = 0;
        for (int i = 0; i < 4; ++i, ++at_) {
            const char c = peek();
            unit <<= 4;
            if (c >= '0' && c <= '9')
                unit |= char32_t(c - '0');
            else if (c >= 'a' && c <= 'f')
                unit |= char32_t(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                unit |= char32_t(c - 'A' + 10);
            else
                return fail(QStringLiteral("illegal \\u escape"));
        }
        return true;
    }

    // After the backslash and the "u". A surrogate fault is reported at the escape's backslash.
    bool unicodeEscape(char32_t& point) {
        const qsizetype escape = at_ - 2;
        const auto unpaired = [&] {
            at_ = escape;
            return fail(QStringLiteral("unpaired surrogate escape"));
        };
        char32_t unit = 0;
        if (!hexDigits(unit))
            return false;
        if (unit >= 0xDC00 && unit <= 0xDFFF)
            return unpaired();
        if (unit < 0xD800 || unit > 0xDBFF) {
            point = unit;
            return true;
        }
        if (text_.mid(at_, 2) != "\\u")
            return unpaired();
        at_ += 2;
        char32_t low = 0;
        if (!hexDigits(low))
            return false;
        if (low < 0xDC00 || low > 0xDFFF)
            return unpaired();
        point = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
        return true;
    }

    // One UTF-8 sequence starting at a byte of 0x80 or more, in its shortest form, no surrogate,
    // at most U+10FFFF.
    bool utf8Sequence(char32_t& point) {
        const auto byte = [this](qsizetype i) { return static_cast<unsigned char>(text_[i]); };
        const unsigned char lead = byte(at_);
        int length = 0;
        char32_t minimum = 0;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2, minimum = 0x80, point = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3, minimum = 0x800, point = lead & 0x0F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4, minimum = 0x10000, point = lead & 0x07;
        } else {
            return fail(QStringLiteral("invalid UTF-8"));
        }
        if (at_ + length > text_.size())
            return fail(QStringLiteral("invalid UTF-8"));
        for (int i = 1; i < length; ++i) {
            const unsigned char next = byte(at_ + i);
            if ((next & 0xC0) != 0x80)
                return fail(QStringLiteral("invalid UTF-8"));
            point = (point << 6) | (next & 0x3F);
        }
        if (point < minimum || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF))
            return fail(QStringLiteral("invalid UTF-8"));
        at_ += length;
        return true;
    }

    bool parseString(QString& out) {
        ++at_; // '"'
        std::u32string points;
        for (;;) {
            if (atEnd())
                return fail(QStringLiteral("unterminated string"));
            const auto c = static_cast<unsigned char>(peek());
            if (c == '"') {
                ++at_;
                out = QString::fromStdU32String(points);
                return true;
            }
            if (c < 0x20)
                return fail(QStringLiteral("control character in a string"));
            if (c >= 0x80) {
                char32_t point = 0;
                if (!utf8Sequence(point))
                    return false;
                points.push_back(point);
                continue;
            }
            ++at_;
            if (c != '\\') {
                points.push_back(c);
                continue;
            }
            const char escape = peek();
            ++at_;
            switch (escape) {
            case '"': points.push_back(U'"'); break;
            case '\\': points.push_back(U'\\'); break;
            case '/': points.push_back(U'/'); break;
            case 'b': points.push_back(U'\b'); break;
            case 'f': points.push_back(U'\f'); break;
            case 'n': points.push_back(U'\n'); break;
            case 'r': points.push_back(U'\r'); break;
            case 't': points.push_back(U'\t'); break;
            case 'u': {
                char32_t point = 0;
                if (!unicodeEscape(point))
                    return false;
                points.push_back(point);
                break;
            }
            default: --at_; return fail(QStringLiteral("illegal escape"));
            }
        }
    }

    // -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
    bool parseNumber(QJsonValue& out) {
        const qsizetype start = at_;
        const auto digits = [this] {
            const qsizetype from = at_;
            while (peek() >= '0' && peek() <= '9')
                ++at_;
            return at_ - from;
        };
        if (peek() == '-')
            ++at_;
        if (peek() == '0')
            ++at_;
        else if (digits() == 0)
            return fail(QStringLiteral("illegal value"));
        if (peek() == '.') {
            ++at_;
            if (digits() == 0)
                return fail(QStringLiteral("illegal number"));
        }
        if (peek() == 'e' || peek() == 'E') {
            ++at_;
            if (peek() == '+' || peek() == '-')
                ++at_;
            if (digits() == 0)
                return fail(QStringLiteral("illegal number"));
        }
        // The grammar above is all that matters; strtod in the C locale then gives the nearest
        // double, an infinity past the largest and a zero below the smallest.
        static const locale_t cLocale = ::newlocale(LC_ALL_MASK, "C", locale_t(nullptr));
        const QByteArray number = text_.mid(start, at_ - start);
        out = ::strtod_l(number.constData(), nullptr, cLocale);
        return true;
    }
};

} // namespace

StrictJson StrictJson::parse(const QByteArray& text) {
    return Parser(text).run();
}
