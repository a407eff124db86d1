// UUID generation, canonical text and parsing.
#include "OstrelCore/UUID.h"

#include <cstring>
#include <random>

#include <openssl/rand.h>

namespace OstrelCore {
namespace {

constexpr char hexDigits[] = "0123456789ABCDEF";
constexpr std::size_t textLength = 36;

constexpr bool isHyphenPosition(std::size_t i) {
    return i == 8 || i == 13 || i == 18 || i == 23;
}

constexpr int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

} // namespace

UUID UUID::random() {
    UUID uuid;
    if (RAND_bytes(uuid.bytes.data(), static_cast<int>(uuid.bytes.size())) != 1) {
        // OpenSSL only fails here when its generator can't be seeded; the kernel's source
        // behind random_device is then the best there is, and far better than a fixed id.
        std::random_device device;
        for (std::size_t i = 0; i < uuid.bytes.size(); i += 4) {
            const std::uint32_t word = device();
            std::memcpy(uuid.bytes.data() + i, &word, 4);
        }
    }
    uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0F) | 0x40); // version 4
    uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3F) | 0x80); // RFC 4122 variant
    return uuid;
}

std::optional<UUID> UUID::parse(std::string_view text) {
    if (text.size() != textLength) return std::nullopt;
    UUID uuid;
    std::size_t byte = 0;
    for (std::size_t i = 0; i < textLength;) {
        if (isHyphenPosition(i)) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        const int high = hexValue(text[i]);
        const int low = hexValue(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        uuid.bytes[byte++] = static_cast<std::uint8_t>(high << 4 | low);
        i += 2;
    }
    return uuid;
}

std::string UUID::uuidString() const {
    std::string text;
    text.reserve(textLength);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
        text.push_back(hexDigits[bytes[i] >> 4]);
        text.push_back(hexDigits[bytes[i] & 0x0F]);
    }
    return text;
}

} // namespace OstrelCore

std::size_t std::hash<OstrelCore::UUID>::operator()(const OstrelCore::UUID& uuid) const noexcept {
    std::uint64_t high = 0;
    std::uint64_t low = 0;
    std::memcpy(&high, uuid.bytes.data(), 8);
    std::memcpy(&low, uuid.bytes.data() + 8, 8);
    // Random ids are already well mixed; the multiply keeps hand-made ids (nil, counters in
    // tests) from colliding in the low bits.
    return static_cast<std::size_t>((high ^ (low * 0x9E3779B97F4A7C15ULL)) * 0xBF58476D1CE4E5B9ULL);
}
