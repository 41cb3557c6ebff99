# The version of everything that is built here, ZU_VERSION, and its date, ZU_DATE. Both stand in one place, the first
# heading of the change log that names a version.
set(ZU_CHANGES ${CMAKE_CURRENT_LIST_DIR}/../CHANGELOG.md)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${ZU_CHANGES})
file(STRINGS ${ZU_CHANGES} newest REGEX "^## " LIMIT_COUNT 1)
if(NOT newest MATCHES "^## ([0-9]+\\.[0-9]+\\.[0-9]+) \\(([0-9]+-[0-9]+-[0-9]+)\\)$")
  message(FATAL_ERROR "CHANGELOG.md: the first heading is not like \"## 2.0.0 (2026-11-22)\": ${newest}")
endif()
set(ZU_VERSION ${CMAKE_MATCH_1})
set(ZU_DATE ${CMAKE_MATCH_2})
