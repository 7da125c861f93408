# talvorn_machine_test(NAME): a test of a program of ours. Under Wine each test gets a
# copy of its own of a prefix that is made for the run and goes with it.
if(CMAKE_CROSSCOMPILING_EMULATOR)
  set(wine_prefix ${PROJECT_BINARY_DIR}/wine-prefix)
  foreach(step prepare end)
    add_test(NAME wine.${step} COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} --${step})
    set_tests_properties(wine.${step} PROPERTIES
      ENVIRONMENT WINEPREFIX=${wine_prefix} TIMEOUT 300)
  endforeach()
  set_tests_properties(wine.prepare PROPERTIES FIXTURES_SETUP wine)
  set_tests_properties(wine.end PROPERTIES FIXTURES_CLEANUP wine)
endif()

function(talvorn_machine_test name)
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    set_tests_properties(${name} PROPERTIES
      ENVIRONMENT WINEPREFIX=${wine_prefix} FIXTURES_REQUIRED wine)
  endif()
endfunction()
