# The compiler finds the headers by itself: here they are only looked for.
function(arm_need_header header package)
  string(MAKE_C_IDENTIFIER ARM_HAVE_${header} found)
  find_path(${found} ${header})
  if(NOT ${found})
    message(FATAL_ERROR "${header} was not found: the package ${package} is missing: "
                        "apt-get install ${package}")
  endif()
endfunction()
