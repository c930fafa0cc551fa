# Firmware images: the same sources compiled freestanding and linked as PE32+ images through
# gnu-efi's crt0, linker script and self-relocator. efi/link-efi.sh refuses any image that
# needs a static constructor or leaves a symbol undefined (operator new, std::__throw_*, ...).
set(EFI_COMPILE_OPTIONS
    -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-stack-protector -mno-red-zone
    -fpic -fno-gnu-unique -fvisibility=hidden -fno-strict-aliasing -fno-asynchronous-unwind-tables -fno-builtin-memcpy -Wall -Wextra
    -Wno-unused-parameter -Wno-missing-field-initializers)
set(EFI_LINK ${CMAKE_SOURCE_DIR}/efi/link-efi.sh)

# The C routines the compiler may call must not be turned back into calls to themselves.
set_source_files_properties(${CMAKE_SOURCE_DIR}/src/base/firmware/CRuntime.cpp PROPERTIES
  COMPILE_OPTIONS "-fno-tree-loop-distribute-patterns")

function(bios_efi_image name subsystem)
  add_library(${name}_objects OBJECT ${ARGN})
  target_compile_options(${name}_objects PRIVATE ${EFI_COMPILE_OPTIONS})
  target_compile_definitions(${name}_objects PRIVATE GNU_EFI_USE_MS_ABI)
  target_include_directories(${name}_objects PRIVATE ${EFI_INCLUDES})
  add_custom_command(
    OUTPUT ${CMAKE_BINARY_DIR}/efi/${name}.efi
    COMMAND ${EFI_LINK} ${CMAKE_BINARY_DIR}/efi/${name}.efi ${subsystem} $<TARGET_OBJECTS:${name}_objects>
    DEPENDS ${name}_objects $<TARGET_OBJECTS:${name}_objects> ${EFI_LINK}
    COMMAND_EXPAND_LISTS VERBATIM)
  add_custom_target(${name} ALL DEPENDS ${CMAKE_BINARY_DIR}/efi/${name}.efi)
endfunction()

file(GLOB BASE_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/base/*.cpp)
set(CRUNTIME ${CMAKE_SOURCE_DIR}/src/base/firmware/CRuntime.cpp)
set(DRIVER_MAIN ${CMAKE_SOURCE_DIR}/efi/driver/EfiMain.cpp)

# The production driver: real hardware.
bios_efi_image(BiosImageInterfaceDxe driver ${DRIVER_SOURCES} ${FIRMWARE_BINDING_SOURCES} ${DRIVER_MAIN})
# The same driver bound to the emulated platform that EmuPlatformDxe publishes.
bios_efi_image(BiosImageInterfaceDxeEmu driver ${DRIVER_SOURCES} ${EMU_SOURCES} ${CRUNTIME} ${DRIVER_MAIN})
# The emulated platform: protocols, flash chip, CMOS, debug service.
file(GLOB EMU_DRIVER_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/efi/emudriver/*.cpp)
# What the emulation driver and the update application share: the run's scenario file, the
# resume state of an interrupted run, whole-file access to the boot volume, console output.
file(GLOB EFI_COMMON_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/efi/common/*.cpp)
bios_efi_image(EmuPlatformDxe driver ${EMU_DRIVER_SOURCES} ${EFI_COMMON_SOURCES} ${EMU_SOURCES} ${BASE_SOURCES} ${CRUNTIME}
               ${CMAKE_SOURCE_DIR}/src/verify/Sha256.cpp)
# Its verifier holds the public halves of the build's test signing keys.
target_include_directories(EmuPlatformDxe_objects PRIVATE ${BIOS_TEST_KEY_DIR})
add_dependencies(EmuPlatformDxe_objects bios_test_keys)
# The update application that drives a run inside OVMF.
file(GLOB APP_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/efi/app/*.cpp)
bios_efi_image(BiosUpdateApp app ${APP_SOURCES} ${EFI_COMMON_SOURCES} ${BASE_SOURCES} ${CRUNTIME})

add_test(NAME firmware_image_format COMMAND ${CMAKE_SOURCE_DIR}/efi/check-image-format.sh
                                            ${CMAKE_BINARY_DIR}/efi/BiosImageInterfaceDxe.efi)
add_test(NAME firmware_link_guard COMMAND ${CMAKE_SOURCE_DIR}/efi/check-link-guard.sh ${CMAKE_CXX_COMPILER}
                                          ${CMAKE_BINARY_DIR}/link-guard)
# Whole runs inside OVMF under QEMU, one at a time (each boot keeps a core busy): the whole
# update, a recovery-mode update, a tampered image refused with nothing written, an update
# interrupted by a power cut and resumed on the next boot, and staging on a USB tools disk.
function(ovmf_run name)
  add_test(NAME ovmf_${name} COMMAND ${CMAKE_SOURCE_DIR}/efi/run-ovmf.sh ${CMAKE_BINARY_DIR}/efi
                                     ${CMAKE_BINARY_DIR}/ovmf-${name} --expect ${ARGN})
  set_tests_properties(ovmf_${name} PROPERTIES TIMEOUT 300 RESOURCE_LOCK qemu)
endfunction()
ovmf_run(whole_update)
ovmf_run(recovery --mode recovery)
ovmf_run(tampered --tampered)
ovmf_run(interrupted --interrupted)
ovmf_run(staging --staging)
