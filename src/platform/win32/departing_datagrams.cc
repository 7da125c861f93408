#include "platform/departing_datagrams.h"

namespace talvorn::platform {

struct DepartingDatagrams::State {};

DepartingDatagrams::DepartingDatagrams(std::uint16_t) {}
DepartingDatagrams::~DepartingDatagrams() = default;

std::vector<DepartingDatagram> DepartingDatagrams::Take() { return {}; }

}  // namespace talvorn::platform
