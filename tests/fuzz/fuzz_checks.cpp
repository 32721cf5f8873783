#include "fuzz_checks.h"

#include <boost/lexical_cast.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cstdint>
#include <cstring>
#include <iomanip>
#include <set>
#include <sstream>

#include "http_query.h"
#include "korvel/error.h"
#include "korvel/service_id.h"
#include "korvel/tree.h"
#include "korvel/utils.h"
#include "logger/logger.h"
#include "stlext/uuid.h"

namespace korvel::fuzz {
namespace {

using qx::korvel::NormalizePath;

// The text with bytes outside printable ASCII as \xNN, for messages.
std::string Show(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string shown;
  for (unsigned char c : text.substr(0, 200)) {
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      shown += static_cast<char>(c);
    } else {
      shown += {'\\', 'x', kHex[c >> 4], kHex[c & 15]};
    }
  }
  return "'" + shown + (text.size() > 200 ? "...'" : "'");
}

std::vector<std::string_view> Split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (std::size_t start = 0;;) {
    const std::size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end == std::string_view::npos ? end : end - start));
    if (end == std::string_view::npos) return parts;
    start = end + 1;
  }
}

// The non-empty components of a slash-separated text.
std::vector<std::string_view> Components(std::string_view text) {
  std::vector<std::string_view> components;
  for (std::string_view part : Split(text, '/')) {
    if (!part.empty()) components.push_back(part);
  }
  return components;
}

bool HasDotComponent(std::string_view text) {
  for (std::string_view part : Components(text)) {
    if (part == "." || part == "..") return true;
  }
  return false;
}

// Whether the server takes the character: UTF-8 as Java decodes it (a
// malformed sequence becomes U+FFFD; beyond U+FFFF a surrogate pair).
bool CharactersValid(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[i + k]); };
    const auto continuation = [&](std::size_t k) {
      return i + k < text.size() && (byte(k) & 0xc0) == 0x80;
    };
    std::uint32_t cp;
    std::size_t length;
    if (byte(0) < 0x80) {
      cp = byte(0), length = 1;
    } else if (byte(0) >= 0xc2 && byte(0) < 0xe0 && continuation(1)) {
      cp = (byte(0) & 0x1fu) << 6 | (byte(1) & 0x3fu), length = 2;
    } else if (byte(0) >= 0xe0 && byte(0) < 0xf0 && continuation(1) && continuation(2)) {
      cp = (byte(0) & 0x0fu) << 12 | (byte(1) & 0x3fu) << 6 | (byte(2) & 0x3fu), length = 3;
      if (cp < 0x800) return false;  // overlong
    } else {
      return false;  // malformed, or beyond U+FFFF
    }
    if (cp == 0 || (cp >= 0x01 && cp <= 0x1f) || (cp >= 0x7f && cp <= 0x9f) ||
        (cp >= 0xd800 && cp <= 0xf8ff) || cp >= 0xfff0) {
      return false;
    }
    i += length;
  }
  return true;
}

// A part of a path (one or more components) that joins into a valid path.
bool ValidPart(std::string_view part) {
  return !part.empty() && IsValidZooKeeperPath("/" + std::string(part));
}

bool IsCanonicalUuidText(std::string_view text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool hyphen = i == 8 || i == 13 || i == 18 || i == 23;
    if (hyphen ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) {
      return false;
    }
  }
  return true;
}

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

// ---- The log program ----------------------------------------------------------

// Reads the input byte by byte; past its end every read gives 0.
class Reader {
 public:
  explicit Reader(std::string_view data) : m_data(data) {}
  bool Done() const { return m_pos >= m_data.size(); }
  unsigned char Byte() { return Done() ? 0 : static_cast<unsigned char>(m_data[m_pos++]); }
  template <typename T>
  T Value() {
    unsigned char bytes[sizeof(T)];
    for (auto& b : bytes) b = Byte();
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
  }
  std::string Text() {
    std::string text;
    for (int n = Byte() % 48; n > 0 && !Done(); --n) text += static_cast<char>(Byte());
    return text;
  }

 private:
  std::string_view m_data;
  std::size_t m_pos = 0;
};

const qx::logging::ConstSourcePtr& FuzzSource() {
  static const qx::logging::ConstSourcePtr source = qx::logging::MakeSource("korvel.fuzz");
  return source;
}

// The texts of the records of FuzzSource, in order.
std::vector<std::string>& Captured() {
  static std::vector<std::string> messages;
  static const int handler = qx::logging::AddLogHandler([](const qx::logging::LogRecord& record) {
    if (record.source == FuzzSource()) messages.push_back(record.message);
  });
  (void)handler;
  return messages;
}

// An operand that logs a record of its own while the outer one is formatted.
struct Nested {
  std::string text;
};
std::ostream& operator<<(std::ostream& os, const Nested& nested) {
  QXLOG(FuzzSource(), qx::logging::QXLOG_WARNING) << std::hex << 255 << nested.text;
  return os;
}

// Applies one operation to `os`; with `logging`, an operand that logs makes
// its nested record, otherwise the text that record would have is appended to
// `expectedNested`.
void Apply(std::ostream& os, Reader& in, bool logging, std::vector<std::string>& expectedNested) {
  switch (in.Byte() % 11) {
    case 0:
      os << in.Text();
      break;
    case 1:
      os << in.Value<std::int64_t>();
      break;
    case 2:
      os << in.Value<double>();
      break;
    case 3: {
      static std::ios_base& (*const kBases[])(std::ios_base&) = {std::dec, std::hex, std::oct};
      os << kBases[in.Byte() % 3];
      break;
    }
    case 4:
      os << std::setw(in.Byte() % 64) << std::setfill(static_cast<char>(in.Byte()));
      break;
    case 5: {
      static const std::ios_base::fmtflags kFlags[] = {
          std::ios_base::showbase,  std::ios_base::showpos,  std::ios_base::uppercase,
          std::ios_base::boolalpha, std::ios_base::left,     std::ios_base::right,
          std::ios_base::internal,  std::ios_base::showpoint};
      const unsigned char pick = in.Byte();
      if (pick & 0x80) {
        os.setf(kFlags[pick % 8]);
      } else {
        os.unsetf(kFlags[pick % 8]);
      }
      break;
    }
    case 6: {
      static std::ios_base& (*const kFloat[])(std::ios_base&) = {std::fixed, std::scientific,
                                                                 std::hexfloat, std::defaultfloat};
      os << std::setprecision(in.Byte() % 30) << kFloat[in.Byte() % 4];
      break;
    }
    case 7:
      os << (in.Byte() % 2 == 1);
      break;
    case 8:
      os << static_cast<char>(in.Byte());
      break;
    case 9: {
      Nested nested{in.Text()};
      if (logging) {
        os << nested;
      } else {
        expectedNested.push_back("ff" + nested.text);
      }
      break;
    }
    default:
      os.setstate(std::ios_base::failbit);
      break;
  }
}

// ---- The request of korvel serve ---------------------------------------------

// The escapes of a query component: "%" followed by two hexadecimal digits each.
bool EscapesValid(std::string_view component) {
  for (std::size_t i = component.find('%'); i != std::string_view::npos;
       i = component.find('%', i + 1)) {
    if (i + 2 >= component.size() || !std::isxdigit(static_cast<unsigned char>(component[i + 1])) ||
        !std::isxdigit(static_cast<unsigned char>(component[i + 2]))) {
      return false;
    }
  }
  return true;
}

// Every byte as %XX, which DecodeComponent must read back as the text.
std::string Escaped(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string escaped;
  for (unsigned char c : text) escaped += {'%', kHex[c >> 4], kHex[c & 15]};
  return escaped;
}

// The value of a parameter, "" when it is not given.
std::string Given(const korvel::http::Query& query, const std::string& name) {
  const auto it = query.find(name);
  return it == query.end() ? std::string() : it->second;
}

// The type and id parameters of `query`: refused with 400, or normalised and valid.
std::string CheckParameters(const korvel::http::Query& query) {
  using korvel::cli::Refusal;
  const std::string given = NormalizePath(Given(query, "type"));
  const bool typeValid = !given.empty() && !qx::korvel::tree::IsLivenessType(given);
  try {
    if (korvel::cli::TypeParameter(query) != given) return "the type is not the normalised one";
    if (!typeValid) return "type " + Show(given) + " is taken";
  } catch (const Refusal& e) {
    if (e.status != 400 || std::string(e.what()).empty()) return "the type's refusal is no 400";
    if (typeValid) return "type " + Show(given) + " is refused";
  }
  const std::string id = Given(query, "id");
  try {
    const std::string read = qx::uuid::to_string(korvel::cli::IdParameter(query));
    if (read != Lower(id)) return "id " + Show(id) + " reads as " + read;
  } catch (const Refusal& e) {
    if (e.status != 400 || std::string(e.what()).empty()) return "the id's refusal is no 400";
    if (IsCanonicalUuidText(id)) return "id " + Show(id) + " is refused";
  }
  return "";
}

}  // namespace

bool IsValidZooKeeperPath(std::string_view path) {
  if (path.empty() || path[0] != '/') return false;
  if (path == "/") return true;
  for (std::string_view part : Split(path.substr(1), '/')) {
    if (part.empty() || part == "." || part == "..") return false;
  }
  return CharactersValid(path);
}

std::string CheckNormalizePath(std::string_view input) {
  const std::string normal = NormalizePath(std::string(input));
  if (!normal.empty() && (normal.front() == '/' || normal.back() == '/')) {
    return "outer slash in " + Show(normal);
  }
  if (normal.find("//") != std::string::npos) return "double slash in " + Show(normal);
  if (NormalizePath(normal) != normal) return "not idempotent on " + Show(normal);
  if (Components(normal) != Components(input)) return "components changed: " + Show(normal);
  const bool expectValid = !normal.empty() && !HasDotComponent(input) &&
                           input.find('\0') == std::string_view::npos && CharactersValid(input);
  if (IsValidZooKeeperPath("/base/" + normal) != expectValid) {
    return std::string(expectValid ? "invalid" : "valid") + " path /base/" + Show(normal);
  }
  return "";
}

std::string CheckServiceIdParse(std::string_view input) {
  const std::string text(input);
  const bool canonical = IsCanonicalUuidText(text);
  qx::korvel::ServiceId cast{};
  bool castOk = true;
  try {
    cast = boost::lexical_cast<qx::korvel::ServiceId>(text);
  } catch (const boost::bad_lexical_cast&) {
    castOk = false;
  }
  qx::korvel::ServiceId parsed{};
  const bool parseOk = qx::uuid::from_string(text, parsed);
  if (castOk != canonical)
    return "lexical_cast " + std::string(castOk ? "accepts " : "refuses ") + Show(text);
  if (parseOk != canonical)
    return "from_string " + std::string(parseOk ? "accepts " : "refuses ") + Show(text);
  if (!canonical) return "";
  if (cast != parsed) return "lexical_cast and from_string disagree on " + Show(text);
  if (qx::uuid::to_string(cast) != Lower(text)) {
    return "round trip of " + Show(text) + " gives " + Show(qx::uuid::to_string(cast));
  }
  return "";
}

// Where tree::Parse puts `path`, compared with what built it.
std::string CheckParse(const std::string& path, bool alive, const std::string& type,
                       const qx::korvel::ServiceId& id) {
  const auto location = qx::korvel::tree::Parse(path);
  if (!location) return "Parse refuses " + Show(path);
  if (location->alive != alive || location->type != type || location->id != id ||
      !location->below.empty()) {
    return "Parse misreads " + Show(path) + " as " + (location->alive ? "liveness" : "data") +
           " of type " + Show(location->type);
  }
  return "";
}

std::string CheckRegistryPaths(std::string_view input) {
  namespace tree = qx::korvel::tree;
  std::vector<std::string_view> fields = Split(input, '\n');
  fields.resize(3);
  const std::string rawType(fields[0]);
  const std::string child(fields[1]);
  const std::string attribute(fields[2]);
  const std::string type = NormalizePath(rawType);
  qx::korvel::ServiceId id{};
  qx::uuid::from_string("0123abcd-4567-89ef-0123-456789abcdef", id);

  // Service: the liveness and data nodes, an attribute of the service or of
  // a child (SetChildAttribute), a child (RemoveChild).
  const std::string alive = tree::AlivePath(rawType, id);
  const std::string root = tree::DataPath(rawType, id);
  const std::string normalChild = NormalizePath(child);
  const std::string normalAttribute = NormalizePath(attribute);
  const std::string attrPath =
      tree::Below(child == "/" ? root : tree::Below(root, child), attribute);
  const std::string childPath = tree::Below(root, child);
  // OldServiceWatcher: the liveness directory, and a query of attribute
  // `attribute` (a bare name, appended as it is) below child `child`.
  const std::string watched = tree::AliveDir(rawType);
  const std::string query =
      (normalChild.empty() ? root : tree::Below(root, child)) + "/" + attribute;

  const bool typeOk = ValidPart(type);
  const auto expect = [](const std::string& path, bool valid) {
    if (IsValidZooKeeperPath(path) == valid) return std::string();
    return std::string(valid ? "invalid " : "valid ") + Show(path);
  };
  for (const std::string& failure :
       {expect(alive, typeOk), expect(root, typeOk), expect(watched, typeOk),
        expect(attrPath,
               typeOk && ValidPart(normalAttribute) && (child == "/" || ValidPart(normalChild))),
        expect(childPath, typeOk && ValidPart(normalChild)),
        expect(query, typeOk && (normalChild.empty() || ValidPart(normalChild)) &&
                          ValidPart(attribute))}) {
    if (!failure.empty()) return failure;
  }

  // A type that registration takes has its data nodes apart from every
  // liveness node, and each path reads back as what built it (unless a level
  // of the type looks like an instance id, which no parser can tell apart).
  bool registrable = true;
  try {
    if (tree::RegistrableType(rawType) != type) return "RegistrableType does not normalise";
  } catch (const qx::korvel::KorvelError&) {
    registrable = false;
  }
  if (registrable == tree::IsLivenessType(type)) return "RegistrableType and IsLivenessType differ";
  if (!registrable || !typeOk) return "";
  for (std::string_view level : Components(type)) {
    qx::korvel::ServiceId unused;
    if (qx::uuid::from_string(level, unused)) return "";
  }
  for (const std::string& failure :
       {CheckParse(root, false, type, id), CheckParse(alive, true, type, id)}) {
    if (!failure.empty()) return failure;
  }
  return "";
}

std::string CheckLogFormatting(std::string_view input) {
  std::vector<std::string>& captured = Captured();
  captured.clear();
  std::vector<std::string> expected;
  std::ostringstream reference;
  Reader plan(input);
  while (!plan.Done()) Apply(reference, plan, false, expected);
  expected.push_back(reference.str());
  expected.push_back("7|255|1.25|1|c");

  {
    qx::logging::Logger record(qx::logging::QXLOG_WARNING, 0, qx::logging::QXLOG_DECODE_AS_KV,
                               FuzzSource(), __FILE__, __LINE__, std::string());
    std::vector<std::string> unused;
    Reader program(input);
    while (!program.Done()) Apply(record.Stream(), program, true, unused);
  }
  QXLOG(FuzzSource(), qx::logging::QXLOG_WARNING)
      << 7 << '|' << 255 << '|' << 1.25 << '|' << true << '|' << 'c';

  if (captured == expected) return "";
  std::string failure = "records differ; got";
  for (const auto& text : captured) failure += " " + Show(text);
  failure += "; expected";
  for (const auto& text : expected) failure += " " + Show(text);
  return failure;
}

std::string CheckServeTarget(std::string_view input) {
  using korvel::cli::Endpoint;
  std::string path;
  korvel::http::Query query;
  const bool decoded = korvel::http::SplitTarget(input, path, query);
  const std::size_t question = input.find('?');
  if (path != input.substr(0, question)) return "the path of " + Show(input) + " is " + Show(path);

  // The query: decoded exactly when every escape is whole; a name given twice keeps its last value.
  const std::string_view rest =
      question == std::string_view::npos ? std::string_view() : input.substr(question + 1);
  if (decoded != EscapesValid(rest)) {
    return "the query " + Show(rest) + (decoded ? " is decoded" : " is refused");
  }
  if (decoded) {
    korvel::http::Query expected;
    for (std::string_view pair : Split(rest, '&')) {
      if (pair.empty()) continue;
      const std::size_t equals = pair.find('=');
      const auto name = korvel::http::DecodeComponent(pair.substr(0, equals));
      const auto value = korvel::http::DecodeComponent(
          equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1));
      expected[*name] = *value;
    }
    if (query != expected) return "the query " + Show(rest) + " is not its pairs";
    for (const auto& [name, value] : query) {
      if (korvel::http::DecodeComponent(Escaped(value)) != value) {
        return "the escaped value " + Show(value) + " does not decode back";
      }
    }
    if (const std::string broken = CheckParameters(query); !broken.empty()) return broken;
  }

  // Routes: each known path has its endpoint, whose label is the path; any other path is an
  // asset or "other", so that the labels stay few.
  static const std::set<std::string_view> kLabels = {"/api/v1/types",    "/api/v1/instances",
                                                     "/api/v1/instance", "/api/v1/watch",
                                                     "/metrics",         "/sd/prometheus",
                                                     "/healthz",         "/",
                                                     "/assets",          "other"};
  const Endpoint endpoint = korvel::cli::EndpointOf(path);
  const std::string_view label = korvel::cli::EndpointLabel(endpoint);
  if (kLabels.count(label) == 0) return "the label " + Show(label) + " is not a known one";
  const bool asset = path.rfind("/assets/", 0) == 0;
  if ((endpoint == Endpoint::kAsset) != asset) return Show(path) + " is routed as an asset";
  const bool page = path == "/index.html" && endpoint == Endpoint::kPage;
  if (endpoint != Endpoint::kAsset && endpoint != Endpoint::kOther && path != label && !page) {
    return Show(path) + " is routed to " + Show(label);
  }
  if (endpoint == Endpoint::kOther && kLabels.count(path) != 0 && path != "/assets" &&
      path != "other") {
    return "the known path " + Show(path) + " is not routed";
  }

  // The token: the input as an Authorization header's value, and as a guess of the path.
  if (const auto token = korvel::http::BearerToken(input)) {
    const std::string secret(*token);
    if (!korvel::http::SameSecret(*token, secret) ||
        korvel::http::SameSecret(secret + "x", secret)) {
      return "the token of " + Show(input) + " is not compared as itself";
    }
  }
  if (korvel::http::SameSecret(input, path) != (input == path)) {
    return "SameSecret of " + Show(input) + " and " + Show(path) + " is wrong";
  }
  return "";
}

const std::vector<Target>& Targets() {
  static const std::vector<Target> targets = {{"normalize_path", &CheckNormalizePath},
                                              {"service_id", &CheckServiceIdParse},
                                              {"registry_paths", &CheckRegistryPaths},
                                              {"log_format", &CheckLogFormatting},
                                              {"serve_target", &CheckServeTarget}};
  return targets;
}

}  // namespace korvel::fuzz
