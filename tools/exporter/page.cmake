# The exporter's page as a source file, IPSLA_PAGE_SOURCE. Its plotting library comes from the npm
# registry, once, when the build directory is configured: everything else must build without npm and
# without a network.

set(IPSLA_PAGE "AUTO" CACHE STRING
  "The exporter's page, whose plotting library npm fetches: ON, OFF, or AUTO for where that works")
set_property(CACHE IPSLA_PAGE PROPERTY STRINGS AUTO ON OFF)

set(page_modules ${CMAKE_CURRENT_BINARY_DIR}/page)
set(page_inputs ${CMAKE_CURRENT_SOURCE_DIR}/page/package.json
  ${CMAKE_CURRENT_SOURCE_DIR}/page/package-lock.json)

# Sets `fault` in the caller's scope: empty when the library is there.
function(fetch_plots fault)
  set(${fault} "" PARENT_SCOPE)
  file(READ ${CMAKE_CURRENT_SOURCE_DIR}/page/package-lock.json wanted)
  string(SHA256 wanted "${wanted}")
  set(stamp ${page_modules}/fetched)
  if(EXISTS ${stamp})
    file(READ ${stamp} fetched)
    if(fetched STREQUAL wanted)
      return()
    endif()
  endif()
  find_program(NPM_PROGRAM npm)
  if(NOT NPM_PROGRAM)
    set(${fault} "there is no npm" PARENT_SCOPE)
    return()
  endif()
  file(COPY ${page_inputs} DESTINATION ${page_modules})
  message(STATUS "Fetching the plotting library of the exporter's page")
  execute_process(
    COMMAND ${NPM_PROGRAM} ci --omit=dev --ignore-scripts --no-audit --no-fund --prefer-offline
      --fetch-retries=1 --fetch-retry-mintimeout=2000 --fetch-timeout=20000
    WORKING_DIRECTORY ${page_modules} TIMEOUT 120
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    set(${fault} "npm could not fetch its plotting library:\n${output}" PARENT_SCOPE)
    return()
  endif()
  file(WRITE ${stamp} ${wanted})
endfunction()

set(page_arguments)
set(page_files)
if(IPSLA_PAGE)
  fetch_plots(page_fault)
  if(NOT page_fault)
    set(page_arguments --plots ${page_modules}/node_modules)
    file(GLOB page_files CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/page/*)
    list(APPEND page_files ${page_modules}/fetched)
    message(STATUS "ip-sla-exporter is built with its page")
  elseif(IPSLA_PAGE STREQUAL AUTO)
    message(WARNING "ip-sla-exporter is built WITHOUT its page: ${page_fault}")
  else()
    message(FATAL_ERROR "ip-sla-exporter cannot be built with its page: ${page_fault}")
  endif()
else()
  message(STATUS "ip-sla-exporter is built without its page, as IPSLA_PAGE says")
endif()

find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(IPSLA_PAGE_SOURCE ${CMAKE_CURRENT_BINARY_DIR}/page_files.cpp)
add_custom_command(OUTPUT ${IPSLA_PAGE_SOURCE}
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/embed_page.py ${IPSLA_PAGE_SOURCE}
    ${page_arguments}
  DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/embed_page.py ${page_files}
  COMMENT "Embedding the exporter's page" VERBATIM)
set_source_files_properties(${IPSLA_PAGE_SOURCE} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
