// Wide text on a 16-bit WCHAR: the Win32 and CRT string functions that the
// monitor calls, and the host's one-byte conversions.
#include <windows.h>

#include <cstring>
#include <string>

#include "kvthost.h"

namespace {

WCHAR FoldAscii(WCHAR c) { return (c >= u'A' && c <= u'Z') ? static_cast<WCHAR>(c + 32) : c; }

// Appends to a bounded wide output; wsprintf writes at most 1024 characters.
struct WideOut {
    LPWSTR out;
    size_t used = 0;
    size_t limit;
    void Put(WCHAR c) {
        if (used + 1 < limit) out[used++] = c;
    }
};

void PutPadded(WideOut &o, const std::u16string &body, int width, bool left, WCHAR pad) {
    int padCount = width > static_cast<int>(body.size()) ? width - static_cast<int>(body.size()) : 0;
    if (!left) {
        // Zero padding goes after a sign.
        size_t start = 0;
        if (pad == u'0' && !body.empty() && body[0] == u'-') {
            o.Put(u'-');
            start = 1;
        }
        for (int i = 0; i < padCount; ++i) o.Put(pad);
        for (size_t i = start; i < body.size(); ++i) o.Put(body[i]);
    } else {
        for (WCHAR c : body) o.Put(c);
        for (int i = 0; i < padCount; ++i) o.Put(u' ');
    }
}

std::u16string Digits(unsigned long long v, unsigned base, bool upper) {
    const char *set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::u16string s;
    do {
        s.insert(s.begin(), static_cast<WCHAR>(set[v % base]));
        v /= base;
    } while (v != 0);
    return s;
}

}  // namespace

extern "C" {

int WINAPI lstrlenW(LPCWSTR s) {
    if (s == nullptr) return 0;
    int n = 0;
    while (s[n] != 0) ++n;
    return n;
}

LPWSTR WINAPI lstrcpyW(LPWSTR dst, LPCWSTR src) {
    if (dst == nullptr || src == nullptr) return nullptr;
    LPWSTR d = dst;
    while ((*d++ = *src++) != 0) {
    }
    return dst;
}

LPWSTR WINAPI lstrcpynW(LPWSTR dst, LPCWSTR src, int max) {
    if (dst == nullptr || src == nullptr || max <= 0) return dst;
    int i = 0;
    for (; i < max - 1 && src[i] != 0; ++i) dst[i] = src[i];
    dst[i] = 0;
    return dst;
}

LPWSTR WINAPI lstrcatW(LPWSTR dst, LPCWSTR src) {
    if (dst == nullptr || src == nullptr) return nullptr;
    lstrcpyW(dst + lstrlenW(dst), src);
    return dst;
}

int WINAPI lstrcmpW(LPCWSTR a, LPCWSTR b) {
    if (a == nullptr || b == nullptr) return a == b ? 0 : (a == nullptr ? -1 : 1);
    while (*a != 0 && *a == *b) ++a, ++b;
    return *a < *b ? -1 : (*a > *b ? 1 : 0);
}

int WINAPI lstrcmpiW(LPCWSTR a, LPCWSTR b) {
    if (a == nullptr || b == nullptr) return a == b ? 0 : (a == nullptr ? -1 : 1);
    while (*a != 0 && FoldAscii(*a) == FoldAscii(*b)) ++a, ++b;
    WCHAR x = FoldAscii(*a), y = FoldAscii(*b);
    return x < y ? -1 : (x > y ? 1 : 0);
}

// wsprintf's format: %[-][0][width][.precision][h|l|I64]type with the types
// c C d i u x X s S and %%.  In the wide form %s and %c are wide, %S and %C
// one-byte.  The output holds at most 1024 characters with the terminator, as
// on Windows: 1023 and the terminator.
int WINAPI wvsprintfW(LPWSTR out, LPCWSTR fmt, va_list args) {
    if (out == nullptr || fmt == nullptr) return 0;
    WideOut o{out, 0, 1024};
    va_list ap;
    va_copy(ap, args);
    for (LPCWSTR p = fmt; *p != 0; ++p) {
        if (*p != u'%') {
            o.Put(*p);
            continue;
        }
        ++p;
        if (*p == u'%') {
            o.Put(u'%');
            continue;
        }
        bool left = false;
        WCHAR pad = u' ';
        if (*p == u'-') left = true, ++p;
        if (*p == u'#') ++p;
        if (*p == u'0') pad = u'0', ++p;
        int width = 0;
        while (*p >= u'0' && *p <= u'9') width = width * 10 + (*p++ - u'0');
        int precision = -1;
        if (*p == u'.') {
            ++p;
            precision = 0;
            while (*p >= u'0' && *p <= u'9') precision = precision * 10 + (*p++ - u'0');
        }
        bool wide64 = false, shortArg = false, longArg = false;
        if (*p == u'h') shortArg = true, ++p;
        else if (*p == u'l') longArg = true, ++p;
        else if (p[0] == u'I' && p[1] == u'6' && p[2] == u'4') wide64 = true, p += 3;
        std::u16string body;
        switch (*p) {
        case u'c':
        case u'C': {
            int c = va_arg(ap, int);
            body.push_back(*p == u'c' && !shortArg ? static_cast<WCHAR>(c)
                                                   : static_cast<WCHAR>(static_cast<unsigned char>(c)));
            break;
        }
        case u'd':
        case u'i': {
            long long v = wide64 ? va_arg(ap, long long) : va_arg(ap, int);
            if (shortArg) v = static_cast<short>(v);
            body = Digits(v < 0 ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v),
                          10, false);
            if (v < 0) body.insert(body.begin(), u'-');
            break;
        }
        case u'u':
        case u'x':
        case u'X': {
            unsigned long long v = wide64 ? va_arg(ap, unsigned long long) : va_arg(ap, unsigned int);
            if (shortArg) v = static_cast<unsigned short>(v);
            body = Digits(v, *p == u'u' ? 10 : 16, *p == u'X');
            break;
        }
        case u's':
        case u'S': {
            bool narrow = (*p == u'S') || shortArg;
            if (narrow) {
                const char *s = va_arg(ap, const char *);
                if (s == nullptr) s = "(null)";
                for (size_t i = 0; s[i] != 0 && (precision < 0 || static_cast<int>(i) < precision); ++i)
                    body.push_back(static_cast<unsigned char>(s[i]));
            } else {
                LPCWSTR s = va_arg(ap, LPCWSTR);
                if (s == nullptr) s = u"(null)";
                for (int i = 0; s[i] != 0 && (precision < 0 || i < precision); ++i) body.push_back(s[i]);
            }
            pad = u' ';
            break;
        }
        case 0:
            --p;  // a lone % at the end stands for nothing
            continue;
        default:
            body.push_back(*p);  // unknown type: the character itself, as wsprintf does
            break;
        }
        (void)longArg;
        PutPadded(o, body, width, left, pad);
    }
    va_end(ap);
    out[o.used] = 0;
    return static_cast<int>(o.used);
}

int WINAPIV wsprintfW(LPWSTR out, LPCWSTR fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = wvsprintfW(out, fmt, ap);
    va_end(ap);
    return n;
}

// Code page 0 on this platform narrows each character to one byte; characters
// above 255 become the default character "?", as in a one-byte ANSI code page.
int WINAPI WideCharToMultiByte(UINT, DWORD, LPCWSTR src, int srcLen, LPSTR dst, int dstLen,
                               LPCSTR defaultChar, LPBOOL usedDefault) {
    if (src == nullptr || srcLen == 0 || dstLen < 0 || (dstLen > 0 && dst == nullptr)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    int count = srcLen < 0 ? lstrlenW(src) + 1 : srcLen;
    if (usedDefault != nullptr) *usedDefault = FALSE;
    if (dstLen == 0) return count;
    char fallback = defaultChar != nullptr ? *defaultChar : '?';
    for (int i = 0; i < count; ++i) {
        if (i >= dstLen) {
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return 0;
        }
        WCHAR c = src[i];
        if (c > 0xFF) {
            dst[i] = fallback;
            if (usedDefault != nullptr) *usedDefault = TRUE;
        } else {
            dst[i] = static_cast<char>(c);
        }
    }
    return count;
}

int WINAPI MultiByteToWideChar(UINT, DWORD, LPCSTR src, int srcLen, LPWSTR dst, int dstLen) {
    if (src == nullptr || srcLen == 0 || dstLen < 0 || (dstLen > 0 && dst == nullptr)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    int count = srcLen < 0 ? static_cast<int>(std::strlen(src)) + 1 : srcLen;
    if (dstLen == 0) return count;
    for (int i = 0; i < count; ++i) {
        if (i >= dstLen) {
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return 0;
        }
        dst[i] = static_cast<unsigned char>(src[i]);
    }
    return count;
}

}  // extern "C"

int _wcsicmp(const WCHAR *a, const WCHAR *b) {
    while (*a != 0 && FoldAscii(*a) == FoldAscii(*b)) ++a, ++b;
    return static_cast<int>(FoldAscii(*a)) - static_cast<int>(FoldAscii(*b));
}

WCHAR *_wcsupr(WCHAR *s) {
    for (WCHAR *p = s; p != nullptr && *p != 0; ++p)
        if (*p >= u'a' && *p <= u'z') *p = static_cast<WCHAR>(*p - 32);
    return s;
}

size_t wcslen(const WCHAR *s) { return static_cast<size_t>(lstrlenW(s)); }

WCHAR *wcstok(WCHAR *s, const WCHAR *delim) {
    static thread_local WCHAR *next = nullptr;
    auto isDelim = [delim](WCHAR c) {
        for (const WCHAR *d = delim; *d != 0; ++d)
            if (*d == c) return true;
        return false;
    };
    WCHAR *p = s != nullptr ? s : next;
    if (p == nullptr) return nullptr;
    while (*p != 0 && isDelim(*p)) ++p;
    if (*p == 0) {
        next = nullptr;
        return nullptr;
    }
    WCHAR *token = p;
    while (*p != 0 && !isDelim(*p)) ++p;
    if (*p != 0) {
        *p = 0;
        next = p + 1;
    } else {
        next = nullptr;
    }
    return token;
}

namespace kvthost {

std::u16string Widen(const std::string &s) {
    std::u16string w;
    w.reserve(s.size());
    for (unsigned char c : s) w.push_back(c);
    return w;
}

std::string Narrow(const std::u16string &s) {
    std::string n;
    n.reserve(s.size());
    for (char16_t c : s) n.push_back(c > 0xFF ? '?' : static_cast<char>(c));
    return n;
}

std::string Narrow(const char16_t *s) { return s == nullptr ? std::string() : Narrow(std::u16string(s)); }

}  // namespace kvthost
