# corvd-sim's command line: each bad use exits with its status and says why on stderr; help,
# version, standard input, --strict and relative scenario paths do what --help says.
# Variables: SIM (the program), WORK (a scratch directory).
file(MAKE_DIRECTORY ${WORK}/sub)
file(WRITE ${WORK}/sub/unresolved.scn
     "device et1 2\nintf Ethernet1 et1\nip Ethernet1 10.0.1.1/24\nvrf default\n"
     "input default bgp proto 8\nroute default bgp 172.16.0.0/16 via 10.9.9.9\nrun 1\n")
file(WRITE ${WORK}/bad.scn "device et1 4294967296\n")

set(failures "")
# check(STATUS TEXT args...): the run exits with STATUS and TEXT appears in stdout or stderr.
function(check status text)
  execute_process(COMMAND ${SIM} ${ARGN} WORKING_DIRECTORY ${WORK} INPUT_FILE ${WORK}/bad.scn
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  string(FIND "${out}${err}" "${text}" at)
  if(NOT rc STREQUAL status OR at EQUAL -1)
    set(failures "${failures}\n  corvd-sim ${ARGN}: exit ${rc} (want ${status}), want \"${text}\" in:\n${out}${err}" PARENT_SCOPE)
  endif()
endfunction()

check(0 "Trace levels" --help)
check(0 "Exit status" -h)
check(0 "docs/corvd-sim.md" --help)
check(0 "corvd-sim 0." --version)
check(2 "does not exist" --bogus)
check(2 "one scenario file at most" a.scn b.scn)
check(2 "need --kernel NETNS" --for 1)
check(2 "need --kernel NETNS" --fib ns1)
check(2 "--fib-keep needs --fib" --kernel ns1 --fib-keep)
check(2 "--for: " --kernel ns1 --for inf)
check(2 "--for: " --kernel ns1 --for 1e3)
check(2 "--kernel takes no scenario file" --kernel ns1 sub/unresolved.scn)
check(2 "--trace: bad trace configuration" --trace "InterfaceRouteInfo/99")
check(2 "--strict is for scenarios" --kernel ns1 --strict)
check(1 "(standard input):1: " -)
check(1 "bad.scn:1: " bad.scn)
check(1 "cannot read nosuch.scn" nosuch.scn)
check(1 "it is a directory" sub)
# A relative path is taken from the caller's directory; --strict counts what was left unresolved.
check(0 "" sub/unresolved.scn)
check(3 "1 route(s) left unresolved" --strict sub/unresolved.scn)

if(failures)
  message(FATAL_ERROR "corvd-sim's command line:${failures}")
endif()
