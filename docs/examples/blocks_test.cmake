# What extract_blocks() takes from a page, and the pages that it refuses. Run as
# cmake -D SCRATCH=<directory> -P blocks_test.cmake
include(${CMAKE_CURRENT_LIST_DIR}/blocks.cmake)

if(DEFINED PAGE) # called by the cases below
    extract_blocks(${PAGE} ${SCRATCH} files)
    return()
endif()

function(expect title actual expected)
    if(NOT "${actual}" STREQUAL "${expected}")
        message(SEND_ERROR "${title}: [${actual}] instead of [${expected}]")
    endif()
endfunction()

# The page may not be taken; MESSAGE says why.
function(expect_refusal title page message)
    file(WRITE ${SCRATCH}/page.md "${page}")
    execute_process(
        COMMAND ${CMAKE_COMMAND} -D PAGE=${SCRATCH}/page.md -D SCRATCH=${SCRATCH}
            -P ${CMAKE_CURRENT_LIST_FILE}
        RESULT_VARIABLE result ERROR_VARIABLE errors)
    string(REGEX REPLACE "[ \n]+" " " errors "${errors}") # it is broken into lines
    if(result EQUAL 0 OR NOT errors MATCHES "${message}")
        message(SEND_ERROR "${title}: ended with ${result}, ${errors}")
    endif()
endfunction()

file(REMOVE_RECURSE ${SCRATCH})
set(page ${SCRATCH}/page.md)

file(WRITE ${page}
    "Text\n```c\n/* file: a.c */\nint a[2]; /* [;] */\n```\n```sh\necho\n```\n"
    "```ini\n; file: s.ini\n[s]\nk=1\n\n```\n\n```c\n/* file: a.c */\nint b;\n```\n")
extract_blocks(${page} ${SCRATCH} files)
expect("files" "${files}" "${SCRATCH}/a.c;${SCRATCH}/s.ini")
file(READ ${SCRATCH}/a.c text)
string(CONCAT expected
    "#line 3 \"${page}\"\n/* file: a.c */\nint a[2]; /* [;] */\n"
    "#line 17 \"${page}\"\n/* file: a.c */\nint b;\n")
expect("blocks of one file follow each other, with the lines of the page" "${text}" "${expected}")
file(READ ${SCRATCH}/s.ini text)
expect("an INI file is as it stands there" "${text}" "; file: s.ini\n[s]\nk=1\n\n")

file(WRITE ${page} "```c\nint a;\n```\n")
extract_blocks(${page} ${SCRATCH} files host.c)
expect("a page of one file need not name it" "${files}" "${SCRATCH}/host.c")

expect_refusal("a block without a name" "1\n```c\nint a;\n```\n"
    "page.md:3: this block of code does not name its file")
expect_refusal("a block without an end" "```c\n/* file: a.c */\nint a;\n"
    "page.md:2: this block of code does not end")
file(REMOVE_RECURSE ${SCRATCH})
