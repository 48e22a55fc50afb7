# What makes an error in memory end the program instead of being of use to whoever provoked it. For optimised builds, on
# all our own targets; the sanitizers find more and replace parts of this, so builds with them go without.
# scripts/check_hardening looks whether the programs have it all.

include(CheckCXXCompilerFlag)
# Shadow stacks and landing pads exist on some processors only.
check_cxx_compiler_flag(-fcf-protection XCPLUMO_HAS_CF_PROTECTION)

add_library(xcplumo_hardening INTERFACE)
set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
# What a program loads at run time is shared, so position independent in another way.
set(of_program $<NOT:$<STREQUAL:$<TARGET_PROPERTY:TYPE>,MODULE_LIBRARY>>)
target_compile_options(xcplumo_hardening INTERFACE
    # -fPIE by hand: libraries of programs need not pay for what shared libraries need.
    "$<$<AND:${optimised},${of_program}>:-fPIE>"
    "$<${optimised}:-fstack-protector-strong;-fstack-clash-protection>"
    # Some compilers come with a lower level switched on.
    "$<${optimised}:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>"
    "$<$<AND:${optimised},$<BOOL:${XCPLUMO_HAS_CF_PROTECTION}>>:-fcf-protection>")
target_compile_definitions(xcplumo_hardening INTERFACE $<${optimised}:_GLIBCXX_ASSERTIONS>)
target_link_options(xcplumo_hardening INTERFACE
    "$<$<AND:${optimised},${of_program}>:-pie>"
    "$<${optimised}:LINKER:-z,relro;LINKER:-z,now;LINKER:-z,noexecstack>")
