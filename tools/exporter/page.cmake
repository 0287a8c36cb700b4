# The exporter's page as a source file, IPSLA_PAGE_SOURCE.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(IPSLA_PAGE_SOURCE ${CMAKE_CURRENT_BINARY_DIR}/page_files.cpp)
add_custom_command(OUTPUT ${IPSLA_PAGE_SOURCE}
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/embed_page.py ${IPSLA_PAGE_SOURCE}
  DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/embed_page.py
  COMMENT "Embedding the exporter's page" VERBATIM)
set_source_files_properties(${IPSLA_PAGE_SOURCE} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
