# The daemon: one program per source, handlers included, over socket pairs and temporary data directories.
foreach(name conf confine hturl htreq htreply number util dir dir2 kelpd_shared
             do_get do_put do_delete json do_post_parse do_post do_scan do_command)
  kelpd_unit(${name} kelpd_core)
endforeach()

# Faults: the linker routes these calls of the code under test to the test program.
target_link_options(unit_htreq PRIVATE -Wl,--wrap=select -Wl,--wrap=read)
target_link_options(unit_htreply PRIVATE -Wl,--wrap=write -Wl,--wrap=writev)
kelpd_unit(server_fault kelpd_core)
foreach(call malloc calloc realloc strdup strndup asprintf __asprintf_chk fdatasync fsync rename write writev pread sendfile readdir)
  target_link_options(unit_server_fault PRIVATE -Wl,--wrap=${call})
endforeach()

# The layers of docs/architecture.md.
add_test(NAME layers.no_include_points_up COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/layers.py)

# Hardening of all that is installed; the sanitizers' builds have other flags.
if(NOT KELPD_SANITIZE)
  set(hardened "")
  foreach(target kelpd kelpd_core colvane cvn cvnsamp colvane_client cvn_tool cvn_bench)
    if(TARGET ${target})
      list(APPEND hardened $<TARGET_FILE:${target}>)
    endif()
  endforeach()
  add_test(NAME hardening.all_programs_and_archives_are_hardened
    COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/hardening.py ${hardened})
  add_test(NAME hardening.a_program_without_one_of_the_properties_is_noticed
    COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/hardening.py --self-test ${CMAKE_CXX_COMPILER})
endif()
