// utf.h - labels and passwords as text: one canonical form whichever way a text came in, the
// form each caller reads back, and the UTF-16 big-endian text of an ASN.1 BMPString.
//
// Java hands the library "modified UTF-8" (a character beyond U+FFFF as two three-byte
// surrogates, U+0000 as C0 80); tolvik and other C callers hand it UTF-8. The library takes
// both and keeps one canonical form: UTF-8, with U+0000 written C0 80 so that it stays a C
// text. Records of zavkm.h carry texts as Java reads them (javaText), records of zavkm_ext.h
// as UTF-8 (utf8Text).
#pragma once

#include <deque>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "base/common.h"

namespace zavkm {

// canonicalText - text (UTF-8 or modified UTF-8) in the canonical form. Nothing for bytes that
// are not text: a lone or reversed surrogate, an overlong form other than C0 80, a byte that
// starts no character or a sequence cut short, a code point above U+10FFFF.
std::optional<std::string> canonicalText(std::string_view text);

// checkLabelText - a label the library stores: canonical text of 1 to 255 bytes without C0 or
// C1 control characters, DEL or U+0000. ZAVKM_ERR_NULL_PARAMETER for null, ZAVKM_ERR_PARAMETER
// otherwise.
Rc checkLabelText(const char* label) noexcept;

// labelFromName - a label made of a name found in a certificate (its common name): control
// characters become U+FFFD, and a text that is none, empty or over 200 bytes becomes
// "certificate".
std::string labelFromName(std::string_view name);

// javaText - a stored text as Java's modified UTF-8 (what JNI's NewStringUTF reads): characters
// beyond U+FFFF as surrogate pairs, U+0000 as C0 80. Bytes that are not text (stored by an
// older version) become U+FFFD; surrogates already in modified form stay.
std::string javaText(std::string_view stored);

// utf8Text - a stored text as UTF-8 for C callers: surrogate pairs in modified form are joined,
// and a lone surrogate, U+0000 or bytes that are not text become U+FFFD.
std::string utf8Text(std::string_view stored);

// withPasswordForms - fn(password) with the password in its canonical form; when that answers
// ZAVKM_ERR_DATABASE_INVALID_PASSWORD and Java would have handed the password over in other
// bytes (a character beyond U+FFFF), fn again with those bytes, which files made from Java
// before passwords were made canonical were keyed with. A password that is not text is passed
// as given. The copies are wiped.
template <class Fn>
Rc withPasswordForms(const char* password, Fn&& fn);

// utf8ToUtf16be - text as UTF-16BE: characters beyond U+FFFF become surrogate pairs (UTF-8 and
// modified UTF-8 alike). Nothing for bytes that are not text or that hold U+0000.
std::optional<Bytes> utf8ToUtf16be(std::string_view text);

// utf16beToUtf8 - UTF-16BE as UTF-8, surrogate pairs joined into one character. Nothing for an
// odd length, a lone surrogate or a NUL.
std::optional<std::string> utf16beToUtf8(const uint8_t* p, size_t n);

// TextArg - a text argument of an operation, to be made canonical before the operation runs.
struct TextArg {
    enum Use { Label, Password };
    const char** text;
    Use use;
};
// labelArg / passwordArg - the label (or password) argument text.
inline TextArg labelArg(const char*& text) noexcept { return {&text, TextArg::Label}; }
inline TextArg passwordArg(const char*& text) noexcept { return {&text, TextArg::Password}; }

class SecretText;

// CanonicalTexts - the canonical copies of one call's text arguments, held (passwords wiped on
// destruction) for the length of the call.
class CanonicalTexts {
  public:
    // take - points each non-null argument at its canonical copy. A label that is not text is
    // left as given (it can only name a label stored so by an older version; a new label is
    // refused by checkLabelText); a password that is not text gives ZAVKM_ERR_PARAMETER.
    Rc take(std::initializer_list<TextArg> texts);

  private:
    std::deque<std::string> labels_;
    std::deque<SecretText> passwords_;
};

// canonicalLabel - a label given as C text in canonical form, as CanonicalTexts::take makes it.
std::string canonicalLabel(const char* label);

// ---- implementation of the template -----------------------------------------------------------

// SecretText - a text that wipes itself.
class SecretText {
  public:
    explicit SecretText(std::string text) noexcept : text_(std::move(text)) {}
    SecretText(const SecretText&) = delete;
    SecretText& operator=(const SecretText&) = delete;
    ~SecretText() {
        if (!text_.empty()) OPENSSL_cleanse(text_.data(), text_.size());
    }
    const char* c_str() const noexcept { return text_.c_str(); }
    const std::string& str() const noexcept { return text_; }

  private:
    std::string text_;
};

template <class Fn>
Rc withPasswordForms(const char* password, Fn&& fn) {
    std::optional<std::string> canonical;
    if (password != nullptr)
        canonical = canonicalText(std::string_view(password, std::strlen(password)));
    if (!canonical) return fn(password);
    const SecretText first(std::move(*canonical));
    const Rc rc = fn(first.c_str());
    if (rc != ZAVKM_ERR_DATABASE_INVALID_PASSWORD) return rc;
    const SecretText java(javaText(first.str()));
    return java.str() == first.str() ? rc : fn(java.c_str());
}

}  // namespace zavkm
