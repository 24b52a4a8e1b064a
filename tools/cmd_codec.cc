// `telvo encode [FILE|-]` and `telvo decode [FILE|-]`: turn a JSON document into
// the request body the library sends, and a body back into its document.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "command.h"
#include "common/input.h"
#include "encoding/json_text.h"
#include "telvo/envelope.h"
#include "telvo/types.h"

namespace telvo::tool {
namespace {

// The largest inflate limit the tool takes: 1 TiB, or what a size can hold
// on a 32-bit device.
constexpr std::size_t kMaxInflatedLimit =
    static_cast<std::size_t>(std::min<std::uint64_t>(std::uint64_t{1} << 40, SIZE_MAX));

struct CodecOptions {
  std::string file = "-";
  bool compact = false;  // encode: rewrite the document compactly first
  bool raw = false;      // decode: print the JSON text as carried, not re-indented
  std::size_t maxInflated = kDefaultMaxInflatedBytes;  // decode: refuse beyond this
};

std::string sourceName(const std::string& file) { return file == "-" ? "standard input" : file; }

// Parses keeping the members in the order they were written. Nesting beyond
// the library's depth limit counts as text that does not parse.
std::optional<nlohmann::ordered_json> parseOrdered(const std::string& text, std::string& error) {
  if (!encoding::withinJsonDepth(text)) {
    error = "it nests arrays and objects more than " + std::to_string(encoding::kMaxJsonDepth) +
            " deep";
    return std::nullopt;
  }
  try {
    return nlohmann::ordered_json::parse(text);
  } catch (const nlohmann::ordered_json::exception& e) {
    error = e.what();
    return std::nullopt;
  }
}

std::string trimmed(const std::string& text) {
  const char* blanks = " \t\r\n";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

int runEncode(const CodecOptions& options) {
  std::string error;
  const auto text = readInput(options.file, error);
  if (!text) {
    std::cerr << "telvo encode: cannot read " << sourceName(options.file) << ": " << error << "\n";
    return kExitUsage;
  }
  const auto document = parseOrdered(*text, error);
  if (!document) {
    std::cerr << "telvo encode: " << sourceName(options.file) << " is not JSON: " << error << "\n";
    return kExitUsage;
  }
  const std::string json = options.compact ? document->dump() : trimmed(*text);
  const auto body = buildTelvoJsonParameter(json);
  if (!body) {
    std::cerr << "telvo encode: compression failed\n";
    return 1;
  }
  std::cout.write(reinterpret_cast<const char*>(body->data()),
                  static_cast<std::streamsize>(body->size()));
  // A terminal gets a line end; a pipe or file gets the body byte for byte.
  if (isatty(STDOUT_FILENO)) std::cout << '\n';
  std::cout.flush();
  return std::cout ? 0 : 1;
}

int runDecode(const CodecOptions& options) {
  std::string error;
  const auto body = readInput(options.file, error);
  if (!body) {
    std::cerr << "telvo decode: cannot read " << sourceName(options.file) << ": " << error << "\n";
    return kExitUsage;
  }
  const DecodedEnvelope decoded = decodeTelvoJsonParameter(*body, options.maxInflated);
  if (!decoded.ok()) {
    std::cerr << "telvo decode: " << decoded.message << "\n";
    return kExitUsage;
  }
  if (options.raw) {
    std::cout << decoded.json << "\n";
  } else {
    // The body parsed once already; parse again keeping the sender's order.
    const auto document = parseOrdered(decoded.json, error);
    std::cout << (document ? document->dump(2) : decoded.document.dump(2)) << "\n";
  }
  std::cout.flush();
  return std::cout ? 0 : 1;
}

const bool encodeRegistered = registerCommand(10, [](CLI::App& app) {
  auto* cmd = app.add_subcommand(
      "encode",
      "Wrap a JSON document into the request body the library sends: \"telvoJson=\" + the "
      "JSON text, zlib-compressed, then Base64 (one line). The body goes to standard output");
  auto options = std::make_shared<CodecOptions>();
  cmd->add_option("file", options->file, "JSON document to wrap, or - for standard input")
      ->capture_default_str();
  cmd->add_flag("--compact", options->compact,
                "Rewrite the document compactly first (default: the text as written, without "
                "surrounding white space)");
  return Command{cmd, [options] { return runEncode(*options); }};
});

const bool decodeRegistered = registerCommand(11, [](CLI::App& app) {
  auto* cmd = app.add_subcommand(
      "decode",
      "Unwrap a request body (Base64, zlib, \"telvoJson=\" prefix) and print its JSON "
      "document indented. Bad input: one line naming the failed layer, exit status 2");
  auto options = std::make_shared<CodecOptions>();
  cmd->add_option("file", options->file, "Request body to unwrap, or - for standard input")
      ->capture_default_str();
  cmd->add_flag("--raw", options->raw, "Print the JSON text exactly as carried in the body");
  cmd->add_option("--max-inflated", options->maxInflated,
                  "Refuse a body whose text inflates to more than this many bytes")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{1}, kMaxInflatedLimit));
  return Command{cmd, [options] { return runDecode(*options); }};
});

}  // namespace
}  // namespace telvo::tool
