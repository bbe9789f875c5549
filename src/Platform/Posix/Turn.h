#ifndef PLATFORM_POSIX_TURN_H
#define PLATFORM_POSIX_TURN_H

#include <atomic>

/// A lock that is only tried: after a fork, the thread that holds it may not exist in the child.
class Turn
{
public:
    explicit Turn(std::atomic_flag& taken) : m_taken(taken), m_is_mine(!taken.test_and_set()) {}
    ~Turn()
    {
        if (m_is_mine)
            m_taken.clear();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    explicit operator bool() const { return m_is_mine; }

private:
    std::atomic_flag& m_taken;
    const bool m_is_mine;
};

#endif
