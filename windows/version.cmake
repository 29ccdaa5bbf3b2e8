# The version stands once, in the project() command at the top of the tree. Here it becomes version resources, and the
# date that goes with it.

find_program(TARNVEIL_RC NAMES llvm-rc-19 REQUIRED)

# Makes ${CMAKE_BINARY_DIR}/NAME.res, the version resource of the file FILE ("Tarnveil.sys"). KIND is DRIVER or PROGRAM.
function(tarnveil_version_resource NAME FILE KIND RESOURCE_DESCRIPTION)
    set(RESOURCE_FILE ${FILE})
    if(KIND STREQUAL "DRIVER")
        set(RESOURCE_TYPE 3)    # a driver,
        set(RESOURCE_SUBTYPE 7) # one of the system
    else()
        set(RESOURCE_TYPE 1)
        set(RESOURCE_SUBTYPE 0)
    endif()
    configure_file(${CMAKE_SOURCE_DIR}/windows/version.rc.in ${CMAKE_BINARY_DIR}/${NAME}.rc @ONLY)
    add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/${NAME}.res
        COMMAND ${TARNVEIL_RC} /no-preprocess /FO ${NAME}.res ${NAME}.rc
        DEPENDS ${CMAKE_BINARY_DIR}/${NAME}.rc
        WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
        VERBATIM)
endfunction()

# Sets VARIABLE to the date of what is built, as MM/DD/YYYY in UTC: that of the last commit, so that building the same
# sources on another day gives the same files. SOURCE_DATE_EPOCH goes first, as everywhere; a tree without its history
# carries the date of its version.
function(tarnveil_source_date VARIABLE)
    if(DEFINED ENV{SOURCE_DATE_EPOCH})
        string(TIMESTAMP DATE "%m/%d/%Y" UTC) # reads the variable
    else()
        # A tree that was unpacked inside somebody else's repository must not take that one's date.
        execute_process(
            COMMAND ${CMAKE_COMMAND} -E env TZ=UTC
                git -C ${CMAKE_SOURCE_DIR} log -1 --date=format-local:%m/%d/%Y --format=%cd
            OUTPUT_VARIABLE DATE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE FAILED)
        if(FAILED OR NOT EXISTS ${CMAKE_SOURCE_DIR}/.git)
            set(DATE ${TARNVEIL_VERSION_DATE})
        endif()
    endif()
    if(NOT DATE MATCHES "^[01][0-9]/[0-3][0-9]/20[0-9][0-9]$")
        message(FATAL_ERROR "the source date \"${DATE}\" is none that an INF may carry (MM/DD/YYYY, from 2000 on)")
    endif()
    set(${VARIABLE} ${DATE} PARENT_SCOPE)
endfunction()
