// Identifiers of menu, keys and dialogs. Macros, because the resource compiler reads this file.
#pragma once

#define ID_EDITOR 1

#define ID_NEW 100
#define ID_OPEN 101
#define ID_IMPORT 102
#define ID_EXPORT 103
#define ID_PROPERTIES 104
#define ID_EXIT 105

#define ID_UNDO 110
#define ID_REDO 111
#define ID_CUT 112
#define ID_COPY 113
#define ID_PASTE 114
#define ID_DELETE 115
#define ID_TRIM 116
#define ID_SILENCE 117
#define ID_SELECT_ALL 118
#define ID_SELECT_SECTION 119

#define ID_LABEL 120
#define ID_SECTION 121
#define ID_RENAME 122
#define ID_NEXT_MARK 123
#define ID_PREVIOUS_MARK 124
#define ID_MARK_LEFT 125
#define ID_MARK_RIGHT 126

#define ID_ZOOM_IN 130
#define ID_ZOOM_OUT 131
#define ID_ZOOM_ALL 132
#define ID_ZOOM_SELECTION 133
#define ID_DECIBELS 134
#define ID_FRAMES 135

#define ID_PLAY 140
#define ID_LOOP 141
#define ID_STOP_HERE 142
#define ID_SCRUB 143
#define ID_RECORD 144
#define ID_STOP 145

#define ID_HOME 150
#define ID_END 151
#define ID_LEFT 152
#define ID_RIGHT 153
#define ID_PAGE_LEFT 154
#define ID_PAGE_RIGHT 155
#define ID_EXTEND 10 /* add to one of the six commands above to extend the selection */

#define ID_KEYS 170

/* Commands that choose a device: first the system's default, then the devices by index. */
#define ID_OUTPUT 1000
#define ID_INPUT 1200
#define ID_DEVICES_END 1400

#define ID_STATUS 1500

#define IDD_TEXT 200
#define IDD_TAGS 201
#define IDC_PROMPT 210
#define IDC_TEXT 211
#define IDC_TITLE 220
#define IDC_ARTIST 221
#define IDC_ALBUM 222
#define IDC_YEAR 223
#define IDC_GENRE 224
