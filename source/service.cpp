#include "korvel/service.h"

#include <boost/lexical_cast.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "korvel/utils.h"
#include "logger/logger.h"
#include "stlext/uuid.h"

namespace qx::korvel {
namespace {

const logging::ConstSourcePtr g_log = logging::MakeSource("korvel.service");

// Values are read into a buffer of this size first; Get grows it as needed.
constexpr std::size_t kAttributeBuffer = 22;

const String kRootPath = "/srv/";
const String kAlivePath = "/srv/alive/";

}  // namespace

OldServiceWatcher::OldServiceWatcher(std::shared_ptr<Connection> conn, const String& name)
    : m_conn(std::move(conn)), m_name(NormalizePath(name)) {
  EnsurePath(*m_conn, kAlivePath + m_name, false, ZOO_OPEN_ACL_UNSAFE);
}

std::tuple<int, std::vector<ServiceId>> OldServiceWatcher::List() const {
  auto [rc, services, handle] = List(nullptr);
  return {rc, std::move(services)};
}

std::tuple<int, std::vector<ServiceId>, Connection::WatchHandle> OldServiceWatcher::List(
    WatchFunction func) const {
  const String path = kAlivePath + m_name;
  std::vector<String> children;
  std::vector<ServiceId> services;
  int rc;
  Connection::WatchHandle handle;
  if (func) {
    std::tie(rc, handle) = m_conn->GetChildren(path, children, std::move(func));
  } else {
    rc = m_conn->GetChildren(path, children);
  }
  if (rc != ZOK) return {rc, std::move(services), std::move(handle)};
  services.reserve(children.size());
  for (const String& child : children) {
    try {
      services.push_back(boost::lexical_cast<boost::uuids::uuid>(child));
    } catch (const boost::bad_lexical_cast&) {
      QXLOG(g_log, logging::QXLOG_WARNING) << "Invalid child name at path '" << path
                                           << "'. Could not convert '" << child
                                           << "' to ServiceId.";
    }
  }
  return {rc, std::move(services), std::move(handle)};
}

std::tuple<int, std::vector<String>> OldServiceWatcher::GetAttributes(const ServiceId& id,
                                                                      const String& path) const {
  std::vector<String> children;
  const int rc = m_conn->GetChildren(CreatePath(path, id), children);
  return {rc, std::move(children)};
}

std::tuple<int, std::vector<String>, Connection::WatchHandle> OldServiceWatcher::GetAttributes(
    const ServiceId& id, WatchFunction func, const String& path) const {
  std::vector<String> children;
  auto [rc, handle] = m_conn->GetChildren(CreatePath(path, id), children, std::move(func));
  return {rc, std::move(children), std::move(handle)};
}

std::tuple<int, String> OldServiceWatcher::GetAttribute(const ServiceId& id, const String& name,
                                                        const String& path) const {
  String value;
  fast_resize(value, kAttributeBuffer);
  const int rc = m_conn->Get(CreatePath(path, id) + "/" + name, value, nullptr);
  return {rc, std::move(value)};
}

std::tuple<int, String, Connection::WatchHandle> OldServiceWatcher::GetAttribute(
    const ServiceId& id, const String& name, WatchFunction func, const String& path) const {
  String value;
  fast_resize(value, kAttributeBuffer);
  auto [rc, handle] =
      m_conn->Get(CreatePath(path, id) + "/" + name, value, std::move(func), nullptr);
  return {rc, std::move(value), std::move(handle)};
}

int OldServiceWatcher::HasAttribute(const ServiceId& id, const String& name,
                                    const String& path) const {
  return m_conn->Exists(CreatePath(path, id) + "/" + name, nullptr);
}

std::tuple<int, Connection::WatchHandle> OldServiceWatcher::HasAttribute(
    const ServiceId& id, const String& name, WatchFunction func, const String& path) const {
  auto [rc, handle] = m_conn->Exists(CreatePath(path, id) + "/" + name, std::move(func), nullptr);
  return {rc, std::move(handle)};
}

String OldServiceWatcher::CreatePath(const String& path, const ServiceId& id) const {
  const String normalized = NormalizePath(path);
  String result = kRootPath + m_name + "/" + uuid::to_string(id);
  if (!normalized.empty()) result += "/" + normalized;
  return result;
}

}  // namespace qx::korvel
