// CISElement: the base of the configuration elements (the "infrastructure") that the
// main server sends this daemon: servers, agents, checks, service desks,
// configuration objects and the rest. Each element kind derives from it and adds its
// own fields.
//
// An element is reference-counted and immutable once decoded: the decoder fills a
// fresh object, and from then on it is shared as CRefPtr<T const> and only ever
// replaced as a whole by a newer object with the same id. `status` 99 marks an
// element that the server has deleted.
//
// On the wire every element record starts with the header that ReadHeader and
// WriteHeader carry (id, name, status, timestamp, changeServer, changeTime,
// reference, properties), followed by the fields of its kind. The records are read
// and written on any stream type that ReadStream and WriteStream accept.
//
// Virtual operations, in the order of their slots: the destructor, GetClassName,
// IsClass, GetTreeName and GetParameterValue. The renderings of elements as XML and
// JSON (WriteXML, WriteJSON) follow GetParameterValue as further virtual operations.
//
// Thread-safety: only the reference count changes after decoding, atomically; any
// number of threads may read an element at once.
#pragma once

#include <cstdint>
#include <string>

#include "base/parametermap.h"
#include "base/refcounted.h"
#include "base/rpc/streamserializer.h"

namespace apm {
namespace protocol {

class CISElement : public base::IRefCounted {
 public:
  // The status of an element that the server has deleted.
  static constexpr uint32_t kStatusDeleted = 99;

  CISElement() = default;
  ~CISElement() override = default;

  // The fixed name of the element's class, e.g. "ServiceDesk".
  virtual std::string GetClassName() const = 0;
  // Whether `name` is this element's class name.
  virtual bool IsClass(const std::string& name) const;
  // The name under which the element is listed; `name` unless a class says more.
  virtual std::string GetTreeName() const;
  // One attribute by name: "name", "reference", "active" ("true" for status 0,
  // else "false") and "properties." followed by a property key. A missing property
  // clears `value` and gives false; an unknown key gives false and leaves `value`
  // alone. Every call first raises `maxTimestamp` to the element's `timestamp`.
  virtual bool GetParameterValue(const std::string& key, std::string& value,
                                 unsigned long& maxTimestamp) const;

  // The element header, in wire order.
  template <class T>
  bool ReadHeader(unsigned long version, base::ReadStream<T>& stream);
  template <class T>
  bool WriteHeader(unsigned long version, base::WriteStream<T>& stream) const;

  uint32_t id = 0;            // unique within the element's kind
  uint64_t timestamp = 0;     // time of the last change
  uint32_t changeServer = 0;  // server that made the change, 0 if none
  uint64_t changeTime = 0;    // time stamp of that change, 0 if none
  std::string name;
  uint32_t status = 0;  // 0 active, any other value inactive, kStatusDeleted deleted
  std::string reference;
  base::ParameterMap properties;

 protected:
  // The steps of GetParameterValue that every class shares. True when they settled
  // `key`, with the answer in `found`; false for a key that the class may know.
  bool GetCommonParameterValue(const std::string& key, std::string& value, unsigned long& maxTimestamp,
                               bool& found) const;
};

template <class T>
bool CISElement::ReadHeader(unsigned long /*version*/, base::ReadStream<T>& stream) {
  return stream.Read(id) && stream.Read(name) && stream.Read(status) && stream.Read(timestamp) &&
         stream.Read(changeServer) && stream.Read(changeTime) && stream.Read(reference) &&
         stream.ReadMap(properties);
}

template <class T>
bool CISElement::WriteHeader(unsigned long /*version*/, base::WriteStream<T>& stream) const {
  if (!(stream.Write(id) && stream.Write(name) && stream.Write(status) && stream.Write(timestamp) &&
        stream.Write(changeServer) && stream.Write(changeTime) && stream.Write(reference))) {
    return false;
  }
  const uint32_t count = static_cast<uint32_t>(properties.size());
  if (!stream.Write(count)) return false;
  for (const auto& property : properties) {
    if (!stream.Write(property.first) || !stream.Write(property.second)) return false;
  }
  return true;
}

}  // namespace protocol
}  // namespace apm
