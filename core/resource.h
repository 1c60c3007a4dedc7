// Identifiers of the module's resources.
#pragma once

#define IDS_LOADING 101
#define IDS_WAV_FILTER 102
#define IDS_SAVING 103
#define IDS_DSHOW_FILTER 104
#define IDS_OGG_FILTER 109
#define IDS_ALL_FILES 311
#define IDS_ALL_KNOWN_FILES 313

#define IDR_MODULE_REGISTRATION 101
#define IDR_CLASS_REGISTRATION 102
#define IDR_TYPE_LIBRARY 1
