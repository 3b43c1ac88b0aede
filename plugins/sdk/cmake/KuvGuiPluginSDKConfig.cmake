# SPDX-License-Identifier: GPL-2.0-or-later
# KuvGuiPluginSDK: build kuvgui GUI plugins out of tree.
#   find_package(KuvGuiPluginSDK REQUIRED)
#   kuv_gui_add_plugin(myplugin SOURCES MyPlugin.cpp TS_FILES myplugin_zh_CN.ts)
# Target KuvGuiPluginSDK::sdk: the plugin interface headers, the bus endpoint interface, GUID text
# conversion (compiled into the plugin) and KuvPluginSupport.h. Install the module into DIR/lib/plugins/
# and its description JSON into DIR/etc/plugins-gui/plugins/.
get_filename_component(_kuvsdk_prefix "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)

include(CMakeFindDependencyMacro)
find_dependency(Qt5 5.15 COMPONENTS Core Gui Widgets)

if(NOT TARGET KuvGuiPluginSDK::sdk)
  add_library(KuvGuiPluginSDK::sdk INTERFACE IMPORTED)
  set_target_properties(KuvGuiPluginSDK::sdk PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${_kuvsdk_prefix}/include/kuvgui-sdk"
    INTERFACE_SOURCES "${_kuvsdk_prefix}/share/kuvgui-sdk/src/Guid.cpp"
    INTERFACE_LINK_LIBRARIES "Qt5::Core;Qt5::Gui;Qt5::Widgets"
    INTERFACE_COMPILE_FEATURES cxx_std_17)
endif()

set(KuvGuiPluginSDK_TARGET KuvGuiPluginSDK::sdk)
set(KUVGUI_PLUGIN_IID "org.kuv.gui.IKuvGuiPlugin/1.0")
set(KUVGUI_PLUGIN_INSTALL_DIR "lib/plugins")
set(KUVGUI_PLUGIN_DESCRIPTION_DIR "etc/plugins-gui/plugins")
include("${CMAKE_CURRENT_LIST_DIR}/KuvGuiPluginSDKMacros.cmake")
unset(_kuvsdk_prefix)
