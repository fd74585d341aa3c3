import QtQuick
import QtQuick.Window
import QtQuick.Controls.Basic
import QtQuick.Controls.impl
import QtQuick.Layouts

// The launcher's only window: one status line, the update-and-play button, a picker of saved
// builds with its play button, and a link that copies the data folder's path.
Window {
    id: window

    // The one LauncherModel of this run; every text and enabled state below follows it.
    required property QtObject launcher
    // Where the status line's "Copy" puts its text: an object with setText(string).
    required property QtObject clipboard

    readonly property bool busy: launcher.busy
    readonly property color tint: Qt.rgba(0.25, 0.76, 0.15, 1)
    // A rounded face for the title where the system has one; the default face otherwise.
    readonly property string titleFamily: {
        const rounded = ["SF Pro Rounded", "Nunito", "Varela Round", "M PLUS Rounded 1c",
                         "Comfortaa", "Quicksand"];
        const installed = Qt.fontFamilies();
        for (const family of rounded) {
            if (installed.indexOf(family) >= 0)
                return family;
        }
        return Qt.application.font.family;
    }

    // The least height at which the whole column still shows, with the download caption clear
    // under it: how far the window may shrink on a screen too short for its designed 510 pixels.
    readonly property int shortestHeight: Math.ceil(column.implicitHeight)
        + 2 * (caption.anchors.bottomMargin + Math.ceil(caption.implicitHeight) + 4)

    objectName: "mainWindow"
    title: qsTr("ZENTHO Launcher")
    width: 620
    height: 510
    minimumWidth: 620
    maximumWidth: 620
    minimumHeight: 510
    maximumHeight: 510
    // A fixed-size window: no maximise button.
    flags: Qt.Window | Qt.CustomizeWindowHint | Qt.WindowTitleHint | Qt.WindowSystemMenuHint
           | Qt.WindowMinimizeButtonHint | Qt.WindowCloseButtonHint
    color: Qt.rgba(0.02, 0.075, 0.04, 1)

    // Makes this the window the user is working with, taking focus from other applications.
    function bringToFront() {
        raise();
        requestActivate();
    }

    onVisibleChanged: {
        if (visible)
            bringToFront();
    }

    Rectangle {
        objectName: "background"
        anchors.fill: parent
        color: window.color
    }

    Item {
        anchors.fill: parent
        anchors.margins: 42

        ColumnLayout {
            id: column
            objectName: "column"
            anchors.centerIn: parent
            width: parent.width
            spacing: 12

            Text {
                objectName: "titleText"
                Layout.alignment: Qt.AlignHCenter
                text: qsTr("ZENTHO")
                font.family: window.titleFamily
                font.pixelSize: 46
                font.bold: true
                color: Qt.rgba(0.72, 1.0, 0.2, 1)
                Accessible.role: Accessible.Heading
                Accessible.name: text
            }

            Text {
                objectName: "subtitleText"
                Layout.alignment: Qt.AlignHCenter
                text: qsTr("Managed Launcher")
                font.pixelSize: 15
                color: Qt.rgba(0.32, 0.9, 0.86, 1)
                Accessible.name: text
            }

            Item {
                objectName: "spacer"
                Layout.fillWidth: true
                Layout.preferredHeight: 18
            }

            Text {
                id: installedText
                objectName: "installedText"
                Layout.alignment: Qt.AlignHCenter
                text: qsTr("Installed: ") + window.launcher.installedVersion
                textFormat: Text.PlainText
                font.pixelSize: 13
                color: Qt.rgba(1, 1, 1, 0.75)
                Accessible.name: text
            }

            StatusLine {
                objectName: "statusText"
                Layout.fillWidth: true
                Layout.preferredHeight: 24
                fullText: window.launcher.status
                textAbove: installedText
                font.pixelSize: 13
                onCopyRequested: (text) => window.clipboard.setText(text)
            }

            ProminentButton {
                objectName: "updateAndPlayButton"
                // Ready for Return or Space as soon as the window opens.
                focus: true
                Layout.alignment: Qt.AlignHCenter
                label: window.busy ? qsTr("WORKING...") : qsTr("CHECK FOR UPDATES & PLAY")
                widestLabel: qsTr("CHECK FOR UPDATES & PLAY")
                tint: window.tint
                enabled: !window.busy
                onClicked: window.launcher.updateAndPlay()
            }

            ProgressDivider {
                objectName: "divider"
                Layout.fillWidth: true
                progress: window.launcher.downloadProgress
                tint: window.tint
            }

            Text {
                objectName: "installedSectionText"
                Layout.alignment: Qt.AlignHCenter
                text: qsTr("PLAY AN INSTALLED VERSION")
                font.pixelSize: 11
                font.weight: Font.DemiBold
                color: Qt.rgba(1, 1, 1, 0.62)
                Accessible.name: text
            }

            RowLayout {
                objectName: "installedRow"
                Layout.alignment: Qt.AlignHCenter
                spacing: 10

                VersionPicker {
                    objectName: "versionPicker"
                    Layout.preferredWidth: 210
                    Layout.alignment: Qt.AlignVCenter
                    implicitHeight: 32
                    font.pixelSize: 13
                    launcher: window.launcher
                    placeholder: qsTr("No saved versions")
                    Accessible.name: qsTr("Version")
                }

                KeyboardButton {
                    id: playInstalledButton
                    objectName: "playInstalledButton"
                    Layout.alignment: Qt.AlignVCenter
                    implicitHeight: 32
                    text: qsTr("PLAY THIS VERSION")
                    font.pixelSize: 13
                    enabled: !window.busy && window.launcher.selectedInstalledPath !== ""
                    Accessible.name: text
                    onClicked: window.launcher.playSelectedInstalledBuild()

                    // The stock face without its focus border; the ring shows the focus.
                    background: Rectangle {
                        implicitWidth: 100
                        implicitHeight: 40
                        color: Color.blend(playInstalledButton.palette.button,
                                           playInstalledButton.palette.mid,
                                           playInstalledButton.down ? 0.5 : 0.0)
                    }
                }
            }

            Text {
                objectName: "installedHintText"
                Layout.alignment: Qt.AlignHCenter
                text: qsTr("Only builds already saved in this launcher's versions folder appear here.")
                font.pixelSize: 10
                color: Qt.rgba(1, 1, 1, 0.42)
                Accessible.name: text
            }

            LinkButton {
                objectName: "copyDataFolderButton"
                Layout.alignment: Qt.AlignHCenter
                text: qsTr("Copy ZENTHO Data Folder")
                font.pixelSize: 13
                textColor: Qt.rgba(0.55, 0.75, 0.55, 1)
                onClicked: window.launcher.copyDataFolder()
            }

            Text {
                objectName: "storageNoteText"
                Layout.alignment: Qt.AlignHCenter
                Layout.topMargin: 8
                text: qsTr("Updates stay in ZENTHO storage\u2014not Downloads. Offline play still works.")
                font.pixelSize: 11
                color: Qt.rgba(1, 1, 1, 0.45)
                Accessible.name: text
            }
        }
    }

    // Below the column, in the window's free bottom margin, so the column never moves for it.
    DownloadCaption {
        id: caption
        objectName: "downloadCaption"
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        anchors.leftMargin: 42
        anchors.rightMargin: 42
        anchors.bottomMargin: 16
        caption: window.launcher.downloadCaption
    }
}
