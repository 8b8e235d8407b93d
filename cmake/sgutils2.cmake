# sg3_utils' library. Its calls changed their arguments between releases, so their declarations in
# its headers are compared with those that ufs/ relies on: where they differ, the build stops with a
# clear message. What an argument means, and the library behind the headers, cannot be checked.
include(CheckCXXSourceCompiles)

find_library(SGUTILS2_LIBRARY sgutils2 REQUIRED)
set(CMAKE_REQUIRED_LIBRARIES ${SGUTILS2_LIBRARY})
check_cxx_source_compiles([[
#include <scsi/sg_cmds_basic.h>
#include <scsi/sg_lib.h>
#include <scsi/sg_pt.h>
#include <type_traits>
template <class F, class T> constexpr bool takes = std::is_same_v<F*, T>;
using Pt = sg_pt_base*;
static_assert(takes<decltype(sg_cmds_open_device), int (*)(const char*, bool, int)>);
static_assert(takes<decltype(sg_cmds_close_device), int (*)(int)>);
static_assert(takes<decltype(sg_cmds_process_resp), int (*)(Pt, const char*, int, bool, int, int*)>);
static_assert(takes<decltype(construct_scsi_pt_obj), Pt (*)()>);
static_assert(takes<decltype(destruct_scsi_pt_obj), void (*)(Pt)>);
static_assert(takes<decltype(set_scsi_pt_cdb), void (*)(Pt, const uint8_t*, int)>);
static_assert(takes<decltype(set_scsi_pt_sense), void (*)(Pt, uint8_t*, int)>);
static_assert(takes<decltype(set_scsi_pt_data_out), void (*)(Pt, const uint8_t*, int)>);
static_assert(takes<decltype(do_scsi_pt), int (*)(Pt, int, int, int)>);
static_assert(takes<decltype(sg_get_category_sense_str), const char* (*)(int, int, char*, int)>);
static_assert(takes<decltype(safe_strerror), char* (*)(int)>);
int main() { return construct_scsi_pt_obj() == nullptr; }
]] SGUTILS2_SIGNATURES_KNOWN)
unset(CMAKE_REQUIRED_LIBRARIES)
if(NOT SGUTILS2_SIGNATURES_KNOWN)
    message(FATAL_ERROR "The headers or the library of this sg3_utils release differ from 1.46: "
        "see the declarations that cmake/sgutils2.cmake checks, and their calls in "
        "ufs/ufs_write_buffer.cc.")
endif()

add_library(sgutils2 INTERFACE)
target_link_libraries(sgutils2 INTERFACE ${SGUTILS2_LIBRARY})
