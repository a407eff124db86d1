// Base64 as programs send it in OSC strings (clipboard, inline files): standard alphabet, padded.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace TerminalEngine::Base64 {

std::string encode(std::span<const std::uint8_t> data);
// None for anything that is not padded standard base64 (no white space, length a multiple of 4).
std::optional<std::vector<std::uint8_t>> decode(std::string_view text);

} // namespace TerminalEngine::Base64
