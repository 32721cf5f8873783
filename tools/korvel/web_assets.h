// The web dashboard of `korvel serve`: its page and assets, built into the binary from
// tools/korvel/web/ (cmake/EmbedFiles.cmake writes them as byte arrays into a generated source),
// so that it works without any file beside the binary and without the internet.
//
//   GET /                 the page (index.html); never cached without asking again
//   GET /assets/NAME      an asset; the page asks for NAME?v=VERSION, which may be cached for good
//   GET /assets/unknown   404
#ifndef KORVEL_TOOLS_KORVEL_WEB_ASSETS_H_
#define KORVEL_TOOLS_KORVEL_WEB_ASSETS_H_

#include <cstddef>
#include <optional>

#include "http_server.h"

namespace korvel::cli::web {

// One file as the generated source holds it.
struct EmbeddedFile {
  const char* name;     // its path below tools/korvel/web/
  const char* version;  // hex digits of a hash of its content
  const unsigned char* data;
  std::size_t size;
};

// Defined by the generated source.
extern const EmbeddedFile kEmbeddedFiles[];
extern const std::size_t kEmbeddedFileCount;

// The answer to a request for the page or an asset; nullopt for any other path.
std::optional<korvel::http::Response> Serve(const korvel::http::Request& request);

}  // namespace korvel::cli::web

#endif  // KORVEL_TOOLS_KORVEL_WEB_ASSETS_H_
