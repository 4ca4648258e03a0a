// statistic_container: base of an object that counts into a block of counters.
//
// Ownership  a block that is passed in is borrowed and must outlive the object, so that counters can outlive
//            their users. Without one the container makes a block of its own and frees it.
#pragma once

#include <memory>

namespace corvalin {

template <class T>
class StatisticContainer {
public:
    explicit StatisticContainer(T* statistic)
        : m_statistic(statistic), m_owned_statistic(statistic == nullptr ? std::make_unique<T>() : nullptr) {
        if (m_statistic == nullptr) {
            m_statistic = m_owned_statistic.get();
        }
    }
    StatisticContainer(const StatisticContainer&) = delete;
    StatisticContainer& operator=(const StatisticContainer&) = delete;
    virtual ~StatisticContainer() = default;

    /// The block in use.
    T& statistic() const noexcept { return *m_statistic; }

private:
    T* m_statistic; // borrowed, or m_owned_statistic
    std::unique_ptr<T> m_owned_statistic;
};

} // namespace corvalin
