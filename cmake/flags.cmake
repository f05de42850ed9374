# rm_flags: warnings and instrumentation that everything in the repository is built with, the
# library, its tests, its benchmarks and its examples alike. Link it PRIVATE.
add_library(rm_flags INTERFACE)

target_compile_options(rm_flags INTERFACE
    -Wall -Wextra -Wconversion -Wshadow -Wformat-security -Wformat-signedness -Werror
    $<$<COMPILE_LANGUAGE:CXX>:-Wmissing-declarations>
    $<$<COMPILE_LANGUAGE:C>:-Wpedantic;-Wstrict-prototypes;-Wmissing-prototypes>)

# Assertions of the C++ library go with our own: both belong to the builds without NDEBUG.
target_compile_definitions(rm_flags INTERFACE
    $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CONFIG:Debug>>:_GLIBCXX_ASSERTIONS>)

if(RM_SANITIZE)
    # The checks that this adds to the code make the compiler warn of paths that do not exist; its
    # manual advises against -Werror here. Every other build keeps it.
    target_compile_options(rm_flags INTERFACE -Wno-error)
    set(instrumentation
        -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_compile_options(rm_flags INTERFACE ${instrumentation})
    target_link_options(rm_flags INTERFACE ${instrumentation})
endif()

if(RM_COVERAGE)
    # Workers fork and count into the same files at the same time.
    target_compile_options(rm_flags INTERFACE --coverage -fprofile-update=atomic)
    # Children of tests end by _exit or a signal and write their counters out themselves.
    target_link_options(rm_flags INTERFACE --coverage -Wl,-u,__gcov_dump)
endif()
