#include "tools/config_manager/consumer_group.h"

#include <iomanip>
#include <random>
#include <sstream>

namespace corvalin::tools {

std::string make_consumer_group(const std::string& purpose) {
    std::random_device random;
    std::ostringstream name;
    name << "corvalin_config_manager" << purpose << "_" << std::hex << std::setfill('0') << std::setw(8)
         << random() << std::setw(8) << random();
    return name.str();
}

} // namespace corvalin::tools
