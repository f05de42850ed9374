# GTest::gtest, GTest::gmock and their main programs, for the machine that the build is for.
if(CMAKE_CROSSCOMPILING)
    # The distribution has the framework built for its own machine, and its sources.
    find_path(googletest_sources googletest/CMakeLists.txt HINTS /usr/src/googletest
        NO_CMAKE_FIND_ROOT_PATH REQUIRED)
    add_subdirectory(${googletest_sources} googletest EXCLUDE_FROM_ALL SYSTEM)
    foreach(library IN ITEMS gtest gtest_main gmock gmock_main)
        if(NOT TARGET GTest::${library})
            add_library(GTest::${library} ALIAS ${library})
        endif()
    endforeach()
else()
    find_package(GTest REQUIRED)
endif()
include(GoogleTest)
