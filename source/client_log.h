// Log sources of the connection, and the bridge that routes the ZooKeeper C
// client's own log lines into our logging.
#pragma once

#include "logger/logger.h"

namespace qx::korvel::details {

// "korvel.connection": what the connection itself logs.
extern const logging::ConstSourcePtr& g_log;

// Routes the client's lines into the source "zookeeper.client" at the client
// level matching our minimum level: the lines it logs without a handle
// through its log stream (set up once), and those of a handle through
// ClientLogCallback, which zookeeper_init2 takes.
void RouteClientLogging();
void ClientLogCallback(const char* message);

}  // namespace qx::korvel::details
