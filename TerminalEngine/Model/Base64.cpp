// Base64 through OpenSSL's block coder.
#include "TerminalEngine/Model/Base64.h"

#include <openssl/evp.h>

namespace TerminalEngine::Base64 {

std::string encode(std::span<const std::uint8_t> data) {
    if (data.empty()) return {};
    std::string out(4 * ((data.size() + 2) / 3) + 1, '\0');
    int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), data.data(),
                            static_cast<int>(data.size()));
    out.resize(static_cast<std::size_t>(n));
    return out;
}

std::optional<std::vector<std::uint8_t>> decode(std::string_view text) {
    if (text.empty()) return std::vector<std::uint8_t>{};
    if (text.size() % 4 != 0) return std::nullopt;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
                  c == '/' || (c == '=' && i + 2 >= text.size());
        if (!ok) return std::nullopt;
    }
    if (text[text.size() - 2] == '=' && text.back() != '=') return std::nullopt;
    std::vector<std::uint8_t> out(3 * (text.size() / 4));
    int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                            static_cast<int>(text.size()));
    if (n < 0) return std::nullopt;
    std::size_t padding = text.back() == '=' ? (text[text.size() - 2] == '=' ? 2 : 1) : 0;
    out.resize(static_cast<std::size_t>(n) - padding);
    return out;
}

} // namespace TerminalEngine::Base64
