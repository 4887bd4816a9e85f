# Cross-built tests run on an emulated board: one boot for all of them, started by the first that is
# asked for and ended after the last.
set(board_program ${CMAKE_CURRENT_LIST_DIR}/board.py)
set(board_state ${PROJECT_BINARY_DIR}/board)

add_test(NAME ABoard.Boots COMMAND ${PROJECT_SOURCE_DIR}/scripts/device
                                   --preset ${quorcore_debian_arch} --start ${board_state})
add_test(NAME ABoard.IsSwitchedOff COMMAND ${board_program} stop ${board_state})
set_tests_properties(ABoard.Boots PROPERTIES FIXTURES_SETUP board LABELS device TIMEOUT 300)
set_tests_properties(ABoard.IsSwitchedOff PROPERTIES FIXTURES_CLEANUP board LABELS device TIMEOUT 60)

# A GoogleTest program becomes one test and one process, so that a board does not start two thousand
# of them.

# What cannot be there: three threads that never wait leave an emulated processor to nobody else.
set(board_filter_CSocketClientTest ASocketClient.ServesManyThreadsWhileItsLinkComesAndGoes)

# These take longest: the first ones to start, also of those whose time CTest knows, in seconds.
set(board_first ModemdTest CThreadATTest CThreadSerialTest CSocketBaseLoopTest CSocketHubLifeTest
                CCoreAppSignalTest CProcessTest CThreadTest CFileNotificationTest HelloDaemonTest
                QuorctlDaemonTest QuorctlModemDaemonTest QuorctlPeerTest)

# What is named BoardTest drives the board's hardware, or sets its clock: alone.
function(quorcore_run_on_board name)
    set(limit_s 600)
    set(filter)
    if(DEFINED board_filter_${name})
        set(filter --gtest_filter=-${board_filter_${name}})
    endif()
    add_test(NAME ${name} COMMAND ${board_program} run --limit ${limit_s} ${board_state}
                                  $<TARGET_FILE:${name}> ${filter})
    math(EXPR ctest_limit_s "${limit_s} + 30")
    set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED board LABELS device
                                            TIMEOUT ${ctest_limit_s})
    if(name IN_LIST board_first)
        set_tests_properties(${name} PROPERTIES COST 1000)
    endif()
    if(name MATCHES "BoardTest$")
        set_tests_properties(${name} PROPERTIES RUN_SERIAL ON)
    endif()
endfunction()
