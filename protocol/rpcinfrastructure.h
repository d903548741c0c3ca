// The records of RPC 3020, "Infrastructure Get": how the whole configuration of the
// suite (the infrastructure) travels from the main server to this daemon.
//
// InfrastructureGetInfoRequest says from which position of the server's history of
// changes the daemon wants the changes (0 and 0 for everything).
// InfrastructureGetInfoResponse carries the server's new position, a flags word
// that the daemon does not use, the infrastructure and the highest element id.
// CISInfrastructureRPC is the infrastructure itself: 23 lists of elements, one per
// element kind, each on the wire as a count followed by the element records, in the
// fixed order of the members below.
//
// A list whose element kind has a class here holds its elements as
// CRefPtr<const T>. The other kinds are UndecodedElementList: on the wire they are
// an empty list (a count of 0) and nothing else; a non-empty one cannot be read
// and fails the whole record. Giving a kind its class means changing the member's
// type; the reading and writing code takes either form.
//
// Plain values, not thread-safe; elements, once read, are immutable and may be
// shared between threads. The records read and write themselves in field order on
// any stream type that ReadStream and WriteStream accept; the version is the
// peer's and is only handed on. A failed read leaves the record half filled (the
// element being read is on its list); callers drop the whole response then.
#pragma once

#include <cstdint>
#include <vector>

#include "base/famerror.h"
#include "base/refcounted.h"
#include "base/rpc/streamserializer.h"
#include "protocol/cisservicedesk.h"

namespace apm {
namespace protocol {

// The elements of one kind, in the order of the wire.
template <class Element>
using ElementList = std::vector<base::CRefPtr<const Element>>;

// The list of an element kind whose records are not decoded in this build: always
// empty.
class UndecodedElementList {
 public:
  // Reads the count; any count but 0 fails with 0x80004005 "unsupported
  // infrastructure element list".
  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  // Writes the count 0.
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;

  bool empty() const { return true; }
  size_t size() const { return 0; }
};

// Sets the error of a list of an undecoded kind that is not empty; false.
bool RefuseUndecodedElements();

// One list of elements, for either form of list.
template <class T, class Element>
bool ReadElementList(unsigned long version, base::ReadStream<T>& stream, ElementList<Element>& list) {
  return stream.ReadListClassRefPtr(version, list);
}
template <class T>
bool ReadElementList(unsigned long version, base::ReadStream<T>& stream, UndecodedElementList& list) {
  return list.Read(version, stream);
}
template <class T, class Element>
bool WriteElementList(unsigned long version, base::WriteStream<T>& stream, const ElementList<Element>& list) {
  const uint32_t count = static_cast<uint32_t>(list.size());
  if (!stream.Write(count)) return false;
  for (const base::CRefPtr<const Element>& element : list) {
    if (!element->Write(version, stream)) return false;
  }
  return true;
}
template <class T>
bool WriteElementList(unsigned long version, base::WriteStream<T>& stream, const UndecodedElementList& list) {
  return list.Write(version, stream);
}

class CISInfrastructureRPC {
 public:
  // The 23 lists in order; false at the first that fails.
  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;

  UndecodedElementList serverInfos;
  UndecodedElementList servers;
  UndecodedElementList services;
  UndecodedElementList serviceGroups;
  UndecodedElementList agents;
  UndecodedElementList agentGroups;
  UndecodedElementList serviceChecks;
  UndecodedElementList counters;
  UndecodedElementList notificationChannels;
  UndecodedElementList notificationAccounts;
  UndecodedElementList notificationSchedules;
  UndecodedElementList logAnalyzers;
  UndecodedElementList databaseConnections;
  UndecodedElementList configurations;
  UndecodedElementList slaDefinitions;
  UndecodedElementList holidays;
  ElementList<CISServiceDesk> serviceDesks;
  UndecodedElementList dashboards;
  UndecodedElementList charts;
  UndecodedElementList logStatistics;
  UndecodedElementList configObjects;
  UndecodedElementList labels;
  UndecodedElementList modules;
};

class InfrastructureGetInfoRequest {
 public:
  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;

  uint64_t changeCounter = 0;  // the last position taken over, 0 for everything
  uint64_t generation = 0;     // the last generation taken over, 0 at first
};

class InfrastructureGetInfoResponse {
 public:
  template <class T>
  bool Read(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool Write(unsigned long version, base::WriteStream<T>& stream) const;

  uint64_t changeCounter = 0;  // the server's position in its history of changes
  uint64_t generation = 0;     // changes when earlier positions no longer apply
  uint32_t responseFlags = 0;  // not used by the daemon
  CISInfrastructureRPC infrastructure;
  uint32_t maxid = 0;
};

template <class T>
bool UndecodedElementList::Read(unsigned long /*version*/, base::ReadStream<T>& stream) {
  uint32_t count;
  if (!stream.Read(count)) return false;
  return count == 0 || RefuseUndecodedElements();
}

template <class T>
bool UndecodedElementList::Write(unsigned long /*version*/, base::WriteStream<T>& stream) const {
  const uint32_t count = 0;
  return stream.Write(count);
}

template <class T>
bool CISInfrastructureRPC::Read(unsigned long version, base::ReadStream<T>& stream) {
  return ReadElementList(version, stream, serverInfos) && ReadElementList(version, stream, servers) &&
         ReadElementList(version, stream, services) && ReadElementList(version, stream, serviceGroups) &&
         ReadElementList(version, stream, agents) && ReadElementList(version, stream, agentGroups) &&
         ReadElementList(version, stream, serviceChecks) && ReadElementList(version, stream, counters) &&
         ReadElementList(version, stream, notificationChannels) &&
         ReadElementList(version, stream, notificationAccounts) &&
         ReadElementList(version, stream, notificationSchedules) &&
         ReadElementList(version, stream, logAnalyzers) && ReadElementList(version, stream, databaseConnections) &&
         ReadElementList(version, stream, configurations) && ReadElementList(version, stream, slaDefinitions) &&
         ReadElementList(version, stream, holidays) && ReadElementList(version, stream, serviceDesks) &&
         ReadElementList(version, stream, dashboards) && ReadElementList(version, stream, charts) &&
         ReadElementList(version, stream, logStatistics) && ReadElementList(version, stream, configObjects) &&
         ReadElementList(version, stream, labels) && ReadElementList(version, stream, modules);
}

template <class T>
bool CISInfrastructureRPC::Write(unsigned long version, base::WriteStream<T>& stream) const {
  return WriteElementList(version, stream, serverInfos) && WriteElementList(version, stream, servers) &&
         WriteElementList(version, stream, services) && WriteElementList(version, stream, serviceGroups) &&
         WriteElementList(version, stream, agents) && WriteElementList(version, stream, agentGroups) &&
         WriteElementList(version, stream, serviceChecks) && WriteElementList(version, stream, counters) &&
         WriteElementList(version, stream, notificationChannels) &&
         WriteElementList(version, stream, notificationAccounts) &&
         WriteElementList(version, stream, notificationSchedules) &&
         WriteElementList(version, stream, logAnalyzers) &&
         WriteElementList(version, stream, databaseConnections) &&
         WriteElementList(version, stream, configurations) && WriteElementList(version, stream, slaDefinitions) &&
         WriteElementList(version, stream, holidays) && WriteElementList(version, stream, serviceDesks) &&
         WriteElementList(version, stream, dashboards) && WriteElementList(version, stream, charts) &&
         WriteElementList(version, stream, logStatistics) && WriteElementList(version, stream, configObjects) &&
         WriteElementList(version, stream, labels) && WriteElementList(version, stream, modules);
}

template <class T>
bool InfrastructureGetInfoRequest::Read(unsigned long /*version*/, base::ReadStream<T>& stream) {
  return stream.Read(changeCounter) && stream.Read(generation);
}

template <class T>
bool InfrastructureGetInfoRequest::Write(unsigned long /*version*/, base::WriteStream<T>& stream) const {
  return stream.Write(changeCounter) && stream.Write(generation);
}

template <class T>
bool InfrastructureGetInfoResponse::Read(unsigned long version, base::ReadStream<T>& stream) {
  return stream.Read(changeCounter) && stream.Read(generation) && stream.Read(responseFlags) &&
         infrastructure.Read(version, stream) && stream.Read(maxid);
}

template <class T>
bool InfrastructureGetInfoResponse::Write(unsigned long version, base::WriteStream<T>& stream) const {
  return stream.Write(changeCounter) && stream.Write(generation) && stream.Write(responseFlags) &&
         infrastructure.Write(version, stream) && stream.Write(maxid);
}

}  // namespace protocol
}  // namespace apm
