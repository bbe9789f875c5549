#ifndef PLATFORM_SERVING_H
#define PLATFORM_SERVING_H

namespace Platform
{

/// What each of this layer's interfaces is reached by. One instance of an interface serves the
/// process.
template <class Interface>
class Serving
{
public:
    /// The instance that serves this process, made at the first call and never destroyed, so
    /// that calls stay good in the destructors of static objects.
    static Interface& Get();

    /// Puts another instance in front and returns the one that served until now; null brings
    /// the real one back. For tests; the caller keeps ownership and makes sure that no other
    /// thread is inside the library.
    static Interface* Replace(Interface* instance);
};

} // namespace Platform

#endif
