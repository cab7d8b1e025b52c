# Validates the LV2 bundle's Turtle against the LV2 vocabularies installed with lv2-dev, which
# validate cleanly on their own: any error found is the bundle's.
# Usage: cmake -DVALIDATOR=<sord_validate> -DBUNDLE=<Quenda.lv2> -P ValidateTtl.cmake
file (GLOB bundle_ttl "${BUNDLE}/*.ttl")
if (NOT bundle_ttl)
    message (FATAL_ERROR "no .ttl files in ${BUNDLE}")
endif()

file (GLOB_RECURSE vocabularies /usr/lib/lv2/*.ttl)
execute_process (COMMAND ${VALIDATOR} ${vocabularies} ${bundle_ttl}
                 RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)

message ("${out}${err}")
if (NOT result EQUAL 0 OR NOT "${out}${err}" MATCHES "Found 0 errors")
    message (FATAL_ERROR "sord_validate found errors in ${BUNDLE} (exit ${result})")
endif()
