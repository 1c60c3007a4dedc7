# tessaly_version_resource(<target> <description>): adds a version resource to a program or module. Windows shows it in
# the file's properties.
function(tessaly_version_resource target description)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    set(file_type VFT_APP)
    set(file ${target}.exe)
  else()
    set(file_type VFT_DLL)
    set(file ${target}.dll)
  endif()
  string(REPLACE "." "," numbers ${PROJECT_VERSION},0)
  set(resource ${CMAKE_CURRENT_BINARY_DIR}/${target}_version.rc)
  file(
    CONFIGURE
    OUTPUT ${resource}
    CONTENT
      [[#include <winver.h>

VS_VERSION_INFO VERSIONINFO
FILEVERSION @numbers@
PRODUCTVERSION @numbers@
FILEOS VOS_NT_WINDOWS32
FILETYPE @file_type@
BEGIN
    BLOCK "StringFileInfo"
    BEGIN
        BLOCK "040904B0"
        BEGIN
            VALUE "FileDescription", "@description@"
            VALUE "FileVersion", "@PROJECT_VERSION@"
            VALUE "InternalName", "@target@"
            VALUE "OriginalFilename", "@file@"
            VALUE "ProductName", "Tessaly"
            VALUE "ProductVersion", "@PROJECT_VERSION@"
        END
    END
    BLOCK "VarFileInfo"
    BEGIN
        VALUE "Translation", 0x0409, 0x04B0
    END
END
]]
    @ONLY)
  target_sources(${target} PRIVATE ${resource})
endfunction()
