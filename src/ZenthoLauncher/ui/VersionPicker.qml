import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Templates as T

// The picker of saved builds. The selection lives in the model: the picker shows it, re-reads it
// whenever the model announces it (also after a rescan that kept it), and writes back what the
// player chooses. With no saved builds it offers one entry whose value is the empty path.
//
// Its entries show the versions exactly as they are named on disk: the stock entry would read an
// "&" as a keyboard mnemonic, hiding it and underlining the next letter. The keyboard opens the
// list with Space or Alt+Down, moves in it with the arrows and picks with Return.
ComboBox {
    id: picker

    // The LauncherModel: its installedBuilds (a list model with "version" and "path" roles) and
    // its selectedInstalledPath.
    required property QtObject launcher
    // The entry's text when no build is saved.
    property string placeholder

    readonly property var builds: launcher.installedBuilds
    model: builds.count > 0 ? builds : [{ version: placeholder, path: "" }]
    textRole: "version"
    valueRole: "path"

    function showSelection() {
        currentIndex = indexOfValue(launcher.selectedInstalledPath);
    }
    onModelChanged: showSelection()
    Component.onCompleted: showSelection()
    onActivated: launcher.selectedInstalledPath = currentValue

    Connections {
        target: picker.launcher
        function onSelectedInstalledPathChanged() {
            picker.showSelection();
        }
    }

    Keys.onPressed: (event) => {
        if (event.key === Qt.Key_Down && (event.modifiers & Qt.AltModifier) && !popup.visible) {
            popup.open();
            event.accepted = true;
        }
    }

    delegate: ItemDelegate {
        id: entry
        // The version as it stands, "&" included.
        readonly property string version: Array.isArray(picker.model) ? modelData[picker.textRole]
                                                                       : model[picker.textRole]

        width: ListView.view.width
        text: version.replace(/&/g, "&&")
        Accessible.name: version
        palette.text: picker.palette.text
        palette.highlightedText: picker.palette.highlightedText
        font.weight: picker.currentIndex === index ? Font.DemiBold : Font.Normal
        highlighted: picker.highlightedIndex === index
        hoverEnabled: picker.hoverEnabled

        contentItem: Text {
            objectName: "pickerEntryLabel"
            text: entry.version
            textFormat: Text.PlainText
            font: entry.font
            color: entry.highlighted ? entry.palette.highlightedText : entry.palette.text
            elide: Text.ElideRight
            verticalAlignment: Text.AlignVCenter
        }
    }

    // The stock list, sized to whole entries: as many as the window has room for, never half of
    // one at the bottom, with a scroll bar for as long as more builds are saved than it shows.
    popup: T.Popup {
        // One entry's height; every entry is as tall.
        readonly property real entryHeight: list.count > 0 ? list.contentHeight / list.count : 0
        readonly property int entriesShown: entryHeight > 0
            ? Math.floor((picker.Window.height - topMargin - bottomMargin) / entryHeight) : 0

        y: picker.height
        width: picker.width
        height: Math.min(list.contentHeight, entriesShown * entryHeight)
        topMargin: 6
        bottomMargin: 6

        contentItem: ListView {
            id: list
            clip: true
            implicitHeight: contentHeight
            // Filled only while open: a rescan of many saved builds then costs the list nothing.
            model: picker.popup.visible ? picker.delegateModel : null
            currentIndex: picker.highlightedIndex
            highlightMoveDuration: 0
            // Scrolling comes to rest on whole entries too.
            snapMode: ListView.SnapToItem

            Rectangle {
                z: 10
                width: parent.width
                height: parent.height
                color: "transparent"
                border.color: picker.palette.mid
            }

            // Always there while the list is longer than it shows, not only while it moves.
            ScrollBar.vertical: ScrollBar {
                objectName: "pickerScrollBar"
                policy: size < 1.0 ? ScrollBar.AlwaysOn : ScrollBar.AlwaysOff
            }
        }

        background: Rectangle {
            color: picker.palette.window
        }
    }

    // The stock background without its focus border: the ring below shows the focus instead, in
    // the window's own colours.
    background: Rectangle {
        implicitWidth: 140
        implicitHeight: 40
        color: picker.down ? picker.palette.mid : picker.palette.button
        visible: !picker.flat || picker.down
    }

    FocusRing {
        shown: picker.visualFocus
    }
}
