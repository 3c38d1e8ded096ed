# Puts the collector beside the program of a target, where the program finds it, whenever the program is linked.
function(logcollector_deploy target)
  add_custom_command(TARGET ${target} POST_BUILD VERBATIM
                     COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:logcollector::logcollector>
                             $<TARGET_FILE_DIR:${target}>)
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS $<TARGET_FILE:logcollector::logcollector>)
  add_dependencies(${target} logcollector::logcollector)
endfunction()
