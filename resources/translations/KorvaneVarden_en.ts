<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en">
<context>
    <name>Localizable</name>
    <message>
        <source>ABORT_SCANS_MENU_ITEM</source>
        <translation>Abort Scans</translation>
    </message>
    <message>
        <source>ABOUT_MENU_ITEM</source>
        <translation>About KorvaneVarden</translation>
    </message>
    <message>
        <source>ACTION</source>
        <translation>Action</translation>
    </message>
    <message>
        <source>ADD_REMOVE_MENU_ITEM</source>
        <translation>Add or Remove Folders…</translation>
    </message>
    <message>
        <source>ARE_YOU_SURE</source>
        <translation>“%@” is inside a mail folder. Do you really want to move it?</translation>
    </message>
    <message>
        <source>AUTH_PROMPT</source>
        <translation>KorvaneVarden needs an administrator password to set up its file-event logger.</translation>
    </message>
    <message>
        <source>CONFIRM_ABORT_SCANS_MESSAGE</source>
        <translation>Files that are still waiting to be scanned will not be scanned.</translation>
    </message>
    <message>
        <source>COPY</source>
        <translation>Copy</translation>
    </message>
    <message>
        <source>DB_OUT_OF_DATE</source>
        <translation>The virus engine reports that its virus database is older than it should be. Please update the virus definitions.</translation>
    </message>
    <message>
        <source>ENGINE_NOT_FOUND</source>
        <translation>The virus engine could not be found. Korvane can install it for you.</translation>
    </message>
    <message>
        <source>EXCLUDE_BAR</source>
        <translation>Skip paths containing bar</translation>
    </message>
    <message>
        <source>EXCLUDE_FOO</source>
        <translation>Skip files whose names start with foo</translation>
    </message>
    <message>
        <source>EXCLUDE_JPG</source>
        <translation>Skip JPEG images</translation>
    </message>
    <message>
        <source>FILENAME</source>
        <translation>File Name</translation>
    </message>
    <message>
        <source>FILE_NAME</source>
        <translation>File Name</translation>
    </message>
    <message>
        <source>FOLDERS_BEING_WATCHED</source>
        <translation>Watched Folders</translation>
    </message>
    <message>
        <source>INFECTED_ITEMS_WINDOW_TITLE</source>
        <translation>Infected Items</translation>
    </message>
    <message>
        <source>INFECTION_NAME</source>
        <translation>Infection</translation>
    </message>
    <message>
        <source>KORVANE_UPDATE_AVAILABLE_MESSAGE</source>
        <translation>A new version of Korvane is available. Open Korvane to install it.</translation>
    </message>
    <message>
        <source>KORVANE_UPDATE_AVAILABLE_TITLE</source>
        <translation>A New Version of Korvane Is Available</translation>
    </message>
    <message>
        <source>LAUNCH_KORVANE</source>
        <translation>Open Korvane</translation>
    </message>
    <message>
        <source>MISSING_DEFS</source>
        <translation>No virus definitions are installed yet. Update the virus definitions before scanning.</translation>
    </message>
    <message>
        <source>NO</source>
        <translation>No</translation>
    </message>
    <message>
        <source>NOTHING_TO_WATCH_MESSAGE.</source>
        <translation>No folders have been chosen to watch. Add some in Korvane’s preferences.</translation>
    </message>
    <message>
        <source>OPEN_KORVANE_SCAN_LOG</source>
        <translation>Open Korvane Scan Log</translation>
    </message>
    <message>
        <source>OPEN_PREFS</source>
        <translation>Open Preferences</translation>
    </message>
    <message>
        <source>OPEN_SCAN_LOG</source>
        <translation>Open Scan Log</translation>
    </message>
    <message>
        <source>OPEN_UPDATE_LOG</source>
        <translation>Open Update Log</translation>
    </message>
    <message>
        <source>PUT_BACK</source>
        <translation>Put Back</translation>
    </message>
    <message>
        <source>QUARANTINED</source>
        <translation>Quarantined</translation>
    </message>
    <message>
        <source>QUARANTINE_PROBLEM</source>
        <translation>Quarantine was requested, but the quarantine folder is missing. Scanning continues without quarantine.</translation>
    </message>
    <message>
        <source>QUIT_BUTTON</source>
        <translation>Quit</translation>
    </message>
    <message>
        <source>QUIT_MENU_ITEM</source>
        <translation>Quit KorvaneVarden</translation>
    </message>
    <message>
        <source>REALLY_ABORT_SCANS</source>
        <translation>Abort the running scans?</translation>
    </message>
    <message>
        <source>RELAUNCH_FAILED_MESSAGE</source>
        <translation>KorvaneVarden has stopped and does not watch your folders: its relaunch tool %1 could not be started (%2). Start KorvaneVarden again from Korvane.</translation>
    </message>
    <message>
        <source>RELAUNCH_FAILED_TITLE</source>
        <translation>KorvaneVarden could not restart</translation>
    </message>
    <message>
        <source>REMOVE_FROM_LIST</source>
        <translation>Remove from List</translation>
    </message>
    <message>
        <source>RESTART_WATCHING</source>
        <translation>Restart Watching</translation>
    </message>
    <message>
        <source>SELECT_ALL</source>
        <translation>Select All</translation>
    </message>
    <message>
        <source>SHOW_INFECTED_ITEMS</source>
        <translation>Show Infected Items…</translation>
    </message>
    <message>
        <source>SHOW_PATH</source>
        <translation>Show Path</translation>
    </message>
    <message>
        <source>SPOTLIGHT_PROBLEM</source>
        <translation>The saved search “%@” could not be read.</translation>
    </message>
    <message>
        <source>SPOTLIGHT_CUT</source>
        <translation>The saved search “%@” was cut after %d entries; the files it would find past them are not scanned.</translation>
    </message>
    <message>
        <source>SPOTLIGHT_SUCCESS</source>
        <translation>The saved search found %d files.</translation>
    </message>
    <message>
        <source>START_WATCHING</source>
        <translation>Start Watching</translation>
    </message>
    <message>
        <source>STATUS</source>
        <translation>Status</translation>
    </message>
    <message>
        <source>STOP_WATCHING</source>
        <translation>Stop Watching</translation>
    </message>
    <message>
        <source>TOOLBAR_DELETE</source>
        <translation>Move to Trash</translation>
    </message>
    <message>
        <source>TOOLBAR_DELETE_TOOLTIP</source>
        <translation>Move the selected files to the Trash.</translation>
    </message>
    <message>
        <source>TOOLBAR_INFECTIONLIST</source>
        <translation>Clear List</translation>
    </message>
    <message>
        <source>TOOLBAR_INFECTIONLIST_TOOLTIP</source>
        <translation>Remove all entries from the list.</translation>
    </message>
    <message>
        <source>TOOLBAR_QUARANTINE</source>
        <translation>Quarantine</translation>
    </message>
    <message>
        <source>TOOLBAR_QUARANTINE_TOOLTIP</source>
        <translation>Move the selected files into quarantine.</translation>
    </message>
    <message>
        <source>TOOLBAR_REVEAL</source>
        <translation>Reveal</translation>
    </message>
    <message>
        <source>TOOLBAR_REVEAL_FINDER</source>
        <translation>Reveal in File Manager</translation>
    </message>
    <message>
        <source>TOOLBAR_REVEAL_TOOLTIP</source>
        <translation>Show the selected file in the file manager.</translation>
    </message>
    <message>
        <source>TRASHED</source>
        <translation>In Trash</translation>
    </message>
    <message>
        <source>UPDATENOW_BUTTON</source>
        <translation>Update Now</translation>
    </message>
    <message>
        <source>UPDATE_ALREADY</source>
        <translation>The virus definitions are already up to date.</translation>
    </message>
    <message>
        <source>UPDATE_COMPLETE</source>
        <translation>New virus definitions have been installed.</translation>
    </message>
    <message>
        <source>UPDATE_CRASHED</source>
        <translation>The virus definitions update failed. See the update log for details.</translation>
    </message>
    <message>
        <source>UPDATE_VIRUS_DEFINITIONS</source>
        <translation>Update Virus Definitions</translation>
    </message>
    <message>
        <source>VARDEN_ERROR</source>
        <translation>KorvaneVarden cannot continue</translation>
    </message>
    <message>
        <source>WATCH_LIMIT_MESSAGE</source>
        <translation>New files in some folders under %1 are not scanned: the system’s limit of watched folders, fs.inotify.max_user_watches, is reached. Raise it, for example with: sudo sysctl fs.inotify.max_user_watches=%2</translation>
    </message>
    <message>
        <source>WATCH_LIMIT_TITLE</source>
        <translation>Some folders are not watched</translation>
    </message>
    <message>
        <source>YES</source>
        <translation>Yes</translation>
    </message>
    <message>
        <source>PROTECTION_PROTECTED</source>
        <translation>KorvaneVarden: protected</translation>
    </message>
    <message>
        <source>PROTECTION_PARTIAL</source>
        <translation>KorvaneVarden: partly protected</translation>
    </message>
    <message>
        <source>PROTECTION_OFF</source>
        <translation>KorvaneVarden: protection is off</translation>
    </message>
    <message>
        <source>PROTECTION_PARTIAL_TITLE</source>
        <translation>Protection is partial</translation>
    </message>
    <message>
        <source>PROTECTION_OFF_TITLE</source>
        <translation>Protection is off</translation>
    </message>
    <message>
        <source>PROTECTED_AGAIN_TITLE</source>
        <translation>Protected again</translation>
    </message>
    <message>
        <source>PROTECTED_AGAIN_MESSAGE</source>
        <translation>Every watched folder is guarded again.</translation>
    </message>
    <message>
        <source>INFECTED_LIST_NOT_SAVED</source>
        <translation>The infected items list cannot be saved</translation>
    </message>
    <message>
        <source>INFECTED_LIST_NOT_SAVED_MESSAGE</source>
        <translation>%@ cannot be written (%@). The list is kept in memory and saved as soon as that works again.</translation>
    </message>
</context>
</TS>
