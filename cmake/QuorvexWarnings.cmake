# quorvex_set_warnings(<target>): the warning flags every target of the
# project is built with.
function(quorvex_set_warnings target)
  target_compile_options(${target} PRIVATE
    $<$<COMPILE_LANGUAGE:C,CXX>:-Wall -Wextra>
    $<$<BOOL:${QUORVEX_WERROR}>:-Werror>)
endfunction()
