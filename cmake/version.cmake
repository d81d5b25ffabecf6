# Writes OUT, the source file that holds the version, when its text would change. Runs in each build.
#   SOURCE   the source directory     RELEASE   the release's number     IN, OUT   template and result
# The commit comes from git; in an exported tree from the line that git put into cmake/exported_commit.txt; else there is none.
set(COMMIT "")
find_program(GIT git)
if(GIT AND EXISTS ${SOURCE}/.git)
  execute_process(COMMAND ${GIT} -C ${SOURCE} describe --always --dirty --abbrev=10 --exclude=*
                  OUTPUT_VARIABLE COMMIT ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE)
else()
  file(STRINGS ${SOURCE}/cmake/exported_commit.txt COMMIT LIMIT_COUNT 1)
  if(COMMIT MATCHES "Format")
    set(COMMIT "")
  endif()
endif()
set(VERSION ${RELEASE})
if(COMMIT)
  set(VERSION "${RELEASE} (${COMMIT})")
endif()
configure_file(${IN} ${OUT} @ONLY)
