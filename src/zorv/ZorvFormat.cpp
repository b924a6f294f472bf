#include "ZorvFormat.h"

#include "ZorvText.h"

namespace zorv {

namespace {

// Collects output and cuts at a limit without ever writing past it.
class Output {
public:
    Output(char16_t* fixed, size_t limit, std::u16string* grow) : m_fixed(fixed), m_limit(limit), m_grow(grow) {}

    void Put(char16_t unit) {
        if (m_grow != nullptr) {
            m_grow->push_back(unit);
        } else if (m_length < m_limit) {
            m_fixed[m_length++] = unit;
        }
    }
    void Put(std::u16string_view text) {
        for (char16_t unit : text) Put(unit);
    }
    void PutAscii(std::string_view text) {
        for (char c : text) Put(static_cast<char16_t>(static_cast<unsigned char>(c)));
    }
    size_t length() const { return m_grow != nullptr ? m_grow->size() : m_length; }

private:
    char16_t* m_fixed;
    size_t m_limit;
    std::u16string* m_grow;
    size_t m_length = 0;
};

struct Directive {
    bool leftAlign = false;
    bool zeroPad = false;
    size_t width = 0;
    char16_t conversion = 0;
};

void PutPadded(Output& out, const Directive& directive, std::u16string_view body) {
    const size_t pad = directive.width > body.size() ? directive.width - body.size() : 0;
    if (!directive.leftAlign) {
        const bool zeros = directive.zeroPad && !body.empty() && directive.conversion != u's';
        size_t start = 0;
        if (zeros && body[0] == u'-') {
            out.Put(u'-');
            start = 1;
        }
        for (size_t i = 0; i < pad; ++i) out.Put(zeros ? u'0' : u' ');
        out.Put(body.substr(start));
    } else {
        out.Put(body);
        for (size_t i = 0; i < pad; ++i) out.Put(u' ');
    }
}

std::u16string Digits(uint64_t value, unsigned base, bool upper) {
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    char16_t buffer[24];
    size_t n = 0;
    do {
        buffer[n++] = static_cast<char16_t>(digits[value % base]);
        value /= base;
    } while (value != 0);
    std::u16string text;
    text.reserve(n + 1);
    while (n > 0) text.push_back(buffer[--n]);
    return text;
}

uint64_t Truncate(uint64_t value, uint8_t bits) {
    return bits >= 64 ? value : (value & ((uint64_t{1} << bits) - 1));
}

// The argument's value seen as unsigned at its own width (as printf's %u of that type would).
uint64_t AsUnsigned(const FormatArg& arg) {
    if (arg.kind() == FormatArg::Kind::Signed) return Truncate(static_cast<uint64_t>(arg.signedValue()), arg.bits());
    return arg.unsignedValue();
}

// The argument's value seen as signed at its own width.
int64_t AsSigned(const FormatArg& arg) {
    if (arg.kind() == FormatArg::Kind::Signed) return arg.signedValue();
    const uint64_t v = arg.unsignedValue();
    if (arg.bits() >= 64) return static_cast<int64_t>(v);
    const uint64_t sign = uint64_t{1} << (arg.bits() - 1);
    return static_cast<int64_t>((v ^ sign) - sign);
}

void PutMismatch(Output& out, char16_t conversion, std::string_view what) {
    out.PutAscii("%!");
    out.Put(conversion);
    out.Put(u'(');
    out.PutAscii(what);
    out.Put(u')');
}

void FormatOne(Output& out, const Directive& directive, const FormatArg* arg) {
    if (arg == nullptr) {
        // A format that ends right after '%' has no conversion letter; never echo its 0.
        PutMismatch(out, directive.conversion == 0 ? u'?' : directive.conversion, "missing");
        return;
    }
    const bool isText = arg->kind() == FormatArg::Kind::Text16 || arg->kind() == FormatArg::Kind::Text8;
    switch (directive.conversion) {
        case u's':
            if (!isText) {
                PutMismatch(out, u's', "number");
            } else if (arg->kind() == FormatArg::Kind::Text16) {
                PutPadded(out, directive, arg->text16());
            } else {
                PutPadded(out, directive, Utf8ToUtf16(arg->text8()));
            }
            return;
        case u'd':
        case u'i': {
            if (isText) return PutMismatch(out, directive.conversion, "text");
            const int64_t v = AsSigned(*arg);
            std::u16string body = Digits(v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v), 10, false);
            if (v < 0) body.insert(body.begin(), u'-');
            PutPadded(out, directive, body);
            return;
        }
        case u'u':
            if (isText) return PutMismatch(out, u'u', "text");
            PutPadded(out, directive, Digits(AsUnsigned(*arg), 10, false));
            return;
        case u'x':
        case u'X':
            if (isText) return PutMismatch(out, directive.conversion, "text");
            PutPadded(out, directive, Digits(AsUnsigned(*arg), 16, directive.conversion == u'X'));
            return;
        default:
            PutMismatch(out, directive.conversion == 0 ? u'?' : directive.conversion, "unknown");
            return;
    }
}

size_t Run(Output& out, std::u16string_view format, const FormatArg* args, size_t argCount) {
    size_t next = 0;
    size_t i = 0;
    while (i < format.size()) {
        const char16_t c = format[i++];
        if (c != u'%') {
            out.Put(c);
            continue;
        }
        if (i < format.size() && format[i] == u'%') {
            out.Put(u'%');
            ++i;
            continue;
        }
        Directive directive;
        for (; i < format.size(); ++i) {
            if (format[i] == u'-') directive.leftAlign = true;
            else if (format[i] == u'0') directive.zeroPad = true;
            else break;
        }
        while (i < format.size() && format[i] >= u'0' && format[i] <= u'9') {
            directive.width = directive.width * 10 + (format[i] - u'0');
            if (directive.width > 256) directive.width = 256;  // a log line never needs more
            ++i;
        }
        // Length modifiers are accepted for familiarity; the argument knows its own width.
        while (i < format.size()) {
            const char16_t m = format[i];
            if (m == u'l' || m == u'h' || m == u'z' || m == u'j' || m == u't' || m == u'L') {
                ++i;
            } else if (m == u'I' && format.substr(i, 3) == u"I64") {
                i += 3;
            } else {
                break;
            }
        }
        if (i < format.size()) directive.conversion = format[i++];
        FormatOne(out, directive, next < argCount ? &args[next] : nullptr);
        ++next;
    }
    for (; next < argCount; ++next) out.PutAscii(" %!(extra)");
    return out.length();
}

}  // namespace

size_t FormatInto(char16_t* out, size_t capacity, std::u16string_view format, const FormatArg* args,
                  size_t argCount) {
    if (out == nullptr || capacity == 0) return 0;
    Output sink(out, capacity - 1, nullptr);
    const size_t length = Run(sink, format, args, argCount);
    out[length] = u'\0';
    return length;
}

std::u16string FormatString(std::u16string_view format, const FormatArg* args, size_t argCount) {
    std::u16string text;
    Output sink(nullptr, 0, &text);
    Run(sink, format, args, argCount);
    return text;
}

}  // namespace zorv
