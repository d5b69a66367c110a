# Starts a test with empty home folders of its own.
file(REMOVE_RECURSE ${HOME})
file(MAKE_DIRECTORY ${HOME}/data ${HOME}/config ${HOME}/cache ${HOME}/runtime ${HOME}/home ${HOME}/tmp)
file(CHMOD ${HOME}/runtime DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
execute_process(COMMAND ${EXE} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${EXE} failed: ${rc}")
endif()
