// The library's own counters, and a writer of the Prometheus text exposition
// format (version 0.0.4) that renders them and a program's own metrics.
//
// Counters. korvel keeps process-wide counters of what its connections and
// services did, summed over every Connection and Service of the process:
//
//   korvel_zookeeper_sessions_total             sessions established (a new
//                                               session counts once, when it
//                                               first connects)
//   korvel_zookeeper_session_expirations_total  sessions the server expired
//   korvel_zookeeper_connected                  gauge: Connections whose
//                                               session is connected right now
//   korvel_zookeeper_requests_total{operation,result}
//                                               node operations of Connections
//   korvel_service_registrations_total          Services that registered
//   korvel_service_reregistrations_total        registrations again after an
//                                               expiry
//   korvel_service_registration_failures_total  registrations (first or again)
//                                               that ended with an exception
//
// A request counts once per operation a caller asked for, with the result
// code it got, including those refused before anything was sent (a bad
// path: result "bad_arguments") and those a fault injector answered. Each
// request of a pipelined batch (CreateAll, GetAll, GetChildrenAll) counts on
// its own; each atomic batch of DeleteAll counts once as operation "multi"
// (and a DeleteAll refused for a bad path once as "multi" with
// "bad_arguments"), and a node it then deletes alone counts as a "delete";
// RemoveWatches counts one "remove_watches" per path it asks the server
// about. `operation` is one of create, set, get, exists, get_children,
// delete, multi, remove_watches;
// `result` is the code's name in lower case without its Z prefix, split into
// words (ok, no_node, node_exists, connection_loss, operation_timeout,
// session_expired, bad_arguments, ...; "other" for a code the library does
// not know). The "ok" sample of every operation is always present; another
// appears once it is non-zero.
//
// Counting costs one relaxed atomic increment. Rendering reads each counter
// at some moment during the call: the text is not a snapshot of all of them
// at one instant.
//
// Threads: RenderMetrics, WriteLibraryMetrics and Histogram may be used from
// any thread at any time, also concurrently and on the connection's event
// thread. A MetricsText belongs to one thread at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "stlext/string.h"

namespace qx::korvel {

// The samples' labels, in the order they are written: name and value.
using MetricLabels = std::vector<std::pair<String, String>>;

// A histogram's state at one moment.
struct HistogramValue {
  // The buckets' finite upper bounds, strictly increasing; the bucket
  // "+Inf" after them is implied.
  std::vector<double> upperBounds;
  // The observations per bucket, not cumulative: one per upper bound, then
  // one for those above the last bound (upperBounds.size() + 1 in all).
  std::vector<std::uint64_t> bucketCounts;
  // The sum of all observations.
  double sum = 0;
};

// A histogram that threads observe into: one relaxed increment of a bucket
// and one atomic addition to the sum per observation, no lock.
class Histogram {
 public:
  // Throws KorvelError "Histogram bounds must be finite and increasing"
  // unless `upperBounds` is strictly increasing and finite (it may be empty:
  // then only "+Inf" remains).
  explicit Histogram(std::vector<double> upperBounds);
  Histogram(const Histogram&) = delete;
  Histogram& operator=(const Histogram&) = delete;

  // Counts `value` in the first bucket whose bound is >= value. Thread-safe.
  void Observe(double value);
  // The counts so far. Thread-safe; an observation made meanwhile may be in
  // the buckets before it is in the sum.
  HistogramValue Value() const;

 private:
  const std::vector<double> m_upperBounds;
  std::unique_ptr<std::atomic<std::uint64_t>[]> m_counts;
  std::atomic<double> m_sum{0};
};

// Collects metric families and their samples, checks them, and renders them
// in the Prometheus text exposition format 0.0.4: per family `# HELP` and
// `# TYPE`, then its samples; families ordered by name, samples in the order
// they were added; `\n` line ends, the last one included.
//
// Every refusal throws KorvelError and leaves the writer as it was:
// - "Invalid metric name": a name that does not match
//   [a-zA-Z_:][a-zA-Z0-9_:]*;
// - "Counter names must end in _total";
// - "Metric family declared twice": a name declared before with another type
//   or help text, or one that collides with a histogram's sample names
//   (<name>_bucket, <name>_sum, <name>_count) in either direction;
// - "Undeclared metric family", "Metric family of another type": Add or
//   AddHistogram for a name that was not declared, or declared with a type
//   that does not take that kind of value;
// - "Invalid label name": not [a-zA-Z_][a-zA-Z0-9_]*, starting with "__",
//   given twice in one sample, or "le" in a histogram;
// - "Duplicate metric sample": a sample with the same labels as one before
//   it in the family;
// - "Invalid counter value": a counter that is negative or NaN;
// - "Invalid histogram value": bounds that are not finite and strictly
//   increasing, or bucketCounts of the wrong size.
// Label values and help texts may hold any bytes; they are escaped.
class MetricsText {
 public:
  enum class Type { kCounter, kGauge, kHistogram };

  // Declares a family. Declaring it again with the same type and help does
  // nothing, so that independent writers may share a family.
  void Declare(const String& name, Type type, const String& help);
  // A sample of a counter or gauge family.
  void Add(const String& name, const MetricLabels& labels, double value);
  // A histogram family's samples for one label set: the cumulative buckets
  // (le="<bound>" ..., le="+Inf"), the sum and the count.
  void AddHistogram(const String& name, const MetricLabels& labels, const HistogramValue& value);

  // The text of everything declared and added so far.
  String Render() const;

 private:
  struct Family {
    Type type;
    String help;
    std::vector<String> sampleLines;
    std::vector<String> labelKeys;  // each sample's labels as written, to refuse a duplicate
  };
  Family& Find(const String& name, bool histogram);

  std::map<String, Family> m_families;
};

// Declares the library's families (listed above) in `out` and adds their
// samples as they are now. Thread-safe.
void WriteLibraryMetrics(MetricsText& out);

// The library's counters as Prometheus text (WriteLibraryMetrics into a
// MetricsText of their own, rendered): for an embedding program's metrics
// endpoint, served with the content type
// "text/plain; version=0.0.4; charset=utf-8". Thread-safe; never throws but
// std::bad_alloc.
String RenderMetrics();

}  // namespace qx::korvel
