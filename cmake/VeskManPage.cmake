# One man page from `vesktap [COMMAND] --help` (cmake -P, at build time): help2man's page,
# titled after the page (vesktap-agent) rather than the program.
set(helpOption "--help")
if(COMMAND)
  set(helpOption "${COMMAND} --help")
endif()
execute_process(
  COMMAND ${HELP2MAN} --no-info --section 1 "--help-option=${helpOption}"
          --version-option=--version "--name=${DESCRIPTION}" ${EXE}
  OUTPUT_VARIABLE page RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "help2man failed for ${PAGE}")
endif()
string(TOUPPER ${PAGE} title)
string(REGEX REPLACE "\n\\.TH [^ ]+ " "\n.TH ${title} " page "${page}")
string(REGEX REPLACE "\nvesktap \\\\- " "\n${PAGE} \\\\- " page "${page}")
file(WRITE ${OUTPUT} "${page}")
