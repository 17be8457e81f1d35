# Fails unless the bundle's defined dynamic symbols are clap_entry and varkesh_lumbrel_* only.
execute_process(COMMAND nm -D --defined-only ${BUNDLE} OUTPUT_VARIABLE symbols RESULT_VARIABLE result)
string(REGEX REPLACE "[^\n]* (clap_entry|varkesh_lumbrel_[A-Za-z0-9_]*)\n" "" others "${symbols}")
if(NOT result EQUAL 0 OR NOT symbols MATCHES " clap_entry\n" OR NOT others STREQUAL "")
  message(FATAL_ERROR "the bundle must export clap_entry and varkesh_lumbrel_* only; also: ${others}")
endif()
