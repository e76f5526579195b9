# Fails when the linked image still needs a symbol: UEFI loads no shared libraries, so anything
# undefined would be a jump through a null pointer at run time.
execute_process(COMMAND ${NM} -u ${IMAGE} OUTPUT_VARIABLE undefined RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "nm -u ${IMAGE} failed")
endif()
string(STRIP "${undefined}" undefined)
if(NOT undefined STREQUAL "")
  message(FATAL_ERROR "${IMAGE} has undefined symbols:\n${undefined}")
endif()
