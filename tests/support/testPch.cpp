// The object GoogleTest's precompiled headers are made for (tests/CMakeLists.txt).
