# The commit of the sources as HALVARD_COMMIT, "-changed" behind it where files differ from it; empty in
# sources without git, and where a cache variable of that name says something else, that.
if(NOT DEFINED CACHE{HALVARD_COMMIT})
    set(HALVARD_COMMIT "")
    if(EXISTS ${CMAKE_SOURCE_DIR}/.git)
        # Not the git of a folder above, and without a lock that another git might wait for.
        execute_process(
            COMMAND ${CMAKE_COMMAND} -E env GIT_OPTIONAL_LOCKS=0
                git -c safe.directory=* describe --always --abbrev=12 --exclude=* --dirty=-changed
            WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
            OUTPUT_VARIABLE HALVARD_COMMIT
            OUTPUT_STRIP_TRAILING_WHITESPACE
            ERROR_QUIET)
    endif()
endif()
set(HALVARD_PRODUCT_VERSION ${PROJECT_VERSION})
if(HALVARD_COMMIT)
    string(APPEND HALVARD_PRODUCT_VERSION " (${HALVARD_COMMIT})")
endif()
