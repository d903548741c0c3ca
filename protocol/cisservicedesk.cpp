#include "protocol/cisservicedesk.h"

namespace apm {
namespace protocol {

std::string CISServiceDesk::GetClassName() const {
  return type == "norvanta_cloud_ticketing_app" ? "ServiceDeskNorvantaCloudTicketing" : "ServiceDesk";
}

}  // namespace protocol
}  // namespace apm
