#ifndef PLATFORM_PLAINDECIMALS_H
#define PLATFORM_PLAINDECIMALS_H

/// Has this thread's formatting functions of the C library write plain decimals for a scope,
/// whatever language the host has chosen. Allocates nothing and never fails.
class PlainDecimals
{
public:
    PlainDecimals() noexcept;
    ~PlainDecimals();
    PlainDecimals(const PlainDecimals&) = delete;
    PlainDecimals& operator=(const PlainDecimals&) = delete;

private:
    void* m_before; ///< the thread's setting, in the system's own form
};

#endif
