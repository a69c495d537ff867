// Installs a platform (the library's host seam) for one scope and restores
// the one before it. Header-only, free of GoogleTest: the unit tests, the
// benchmarks and the fuzz targets share it.
#ifndef QEL_TEST_SCOPED_PLATFORM_H
#define QEL_TEST_SCOPED_PLATFORM_H

#include "qelPlatform.h"

namespace platformTest {

class ScopedPlatform {
public:
    explicit ScopedPlatform(qelPlatform::Platform* platform) : previous_(qelPlatform::setPlatform(platform)) {}
    ~ScopedPlatform() { qelPlatform::setPlatform(previous_); }
    ScopedPlatform(const ScopedPlatform&) = delete;
    ScopedPlatform& operator=(const ScopedPlatform&) = delete;

private:
    qelPlatform::Platform* previous_;
};

}  // namespace platformTest

#endif
