# The Debian packages are built from debian/ with dpkg-buildpackage
# (scripts/build-packages.sh DIR). debian/changelog and CHANGELOG.md each
# name the release they describe first; both must be this project's version,
# which the programs print with --version.
foreach(changelog debian/changelog CHANGELOG.md)
  file(STRINGS ${PROJECT_SOURCE_DIR}/${changelog} lines LIMIT_COUNT 40)
  set(named)
  foreach(line IN LISTS lines)
    # "klvlockd (VERSION) ..." and "## [VERSION] - DATE"
    if(line MATCHES "^klvlockd \\(([^)]+)\\)")
      set(named ${CMAKE_MATCH_1})
      break()
    elseif(line MATCHES "^## \\[([^]]+)\\]")
      set(named ${CMAKE_MATCH_1})
      break()
    endif()
  endforeach()
  if(NOT named STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "${changelog} begins with version '${named}', the project is "
                        "${PROJECT_VERSION}: add its entry")
  endif()
endforeach()
