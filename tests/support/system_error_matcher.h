// system_error_matcher: that an action fails with a certain error of the system:
//
//     EXPECT_THAT([&] { balancer.pick(); }, throws_system_error(EDEADLK));
#pragma once

#include <system_error>

#include <gmock/gmock.h>

namespace corvalin::test {

inline auto throws_system_error(int number) {
    return testing::Throws<std::system_error>(
        testing::Property(&std::system_error::code, testing::Property(&std::error_code::value, number)));
}

} // namespace corvalin::test
