# Options of crrecord_build that make memory errors harder to exploit. Sanitizers have their own checks.

option(CRRECORD_HARDENING "Build with stack protector, fortified functions, full RELRO and CET" ${PROJECT_IS_TOP_LEVEL})
if(NOT CRRECORD_HARDENING OR CRRECORD_SANITIZE)
    return()
endif()

include(CheckCXXCompilerFlag)
check_cxx_compiler_flag(-fcf-protection CRRECORD_HAS_CF_PROTECTION) # x86 only
target_compile_options(crrecord_build INTERFACE -fstack-protector-strong
    $<$<BOOL:${CRRECORD_HAS_CF_PROTECTION}>:-fcf-protection>)
target_link_options(crrecord_build INTERFACE LINKER:-z,relro LINKER:-z,now)

# Needs optimisation. A level in CMAKE_CXX_FLAGS is kept.
if(NOT CMAKE_CXX_FLAGS MATCHES _FORTIFY_SOURCE)
    target_compile_options(crrecord_build INTERFACE
        $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
endif()
