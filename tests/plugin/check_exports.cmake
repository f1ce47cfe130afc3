# The plug-in exports exactly its entry points, handlers and their building
# blocks: the defined dynamic symbols of LIBRARY, demangled, without
# parameter lists.
set(expected
  check_intf_ip_presence get_validation_point intf_iter intf_iter_oper_lower_layer lib_finish
  lib_init validate validate_intf_l3_name validate_intf_vrf validate_ipv4_addr
  validate_ipv4_addr_cross_ldp_router_id validate_ipv4_addr_cross_ospf_intf
  validate_ipv4_addr_cross_prot validate_ipv4_addr_route validate_ipv6_addr
  validate_ipv6_addr_route validate_ldp_intf validate_lower_layer_cross_ldp_intf
  validate_lower_layer_cross_ospfv3 validate_lower_layer_cross_prot validate_route_l3_intf)

execute_process(COMMAND ${NM} -D --defined-only -C ${LIBRARY} OUTPUT_VARIABLE out
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}")
endif()
string(REGEX MATCHALL "[0-9a-fA-F]+ [A-Za-z] [^(\n]+" lines "${out}")
set(actual)
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^[0-9a-fA-F]+ [A-Za-z] " "" name "${line}")
  list(APPEND actual "${name}")
endforeach()
list(SORT actual)
list(REMOVE_DUPLICATES actual)
if(NOT actual STREQUAL expected)
  message(FATAL_ERROR "exported symbols differ\n  expected: ${expected}\n  actual: ${actual}")
endif()
