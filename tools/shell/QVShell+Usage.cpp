#include "QVShell.h"

namespace qv::shell {

std::string QVShell::usage() {
  return R"(usage: qvcore-shell [SCRIPT | -]
Runs a script (the file SCRIPT, or standard input), one command a line. Blank
lines and lines starting with # are skipped. Arguments are separated by blanks;
options are key=value; double quotes keep blanks in a text (\" and \\ escape);
a JSON argument runs to the end of the line, so it comes last. Each command
prints one line: true or false, a value (JSON when structured, none when
absent), or ok. A failed command prints "error: ..." on standard error and
nothing else; the script goes on, and the exit status is 1 when any command
failed. The shell plays the host: the network starts on Wi-Fi with no address
and changes only with "network"; events are delivered before their command
answers.

Setting up
  home DIR                    the application's data folder (documents, defaults)
  bundles DIR                 add a folder to the bundle search path
  main-bundle DIR             the application's bundle (with Info.plist)
  module NAME BUNDLE_DIR [saves-config=true|false] [handles-exceptions=true|false]
         [terminate-hook=true|false] [headers=JSON]
                              define a module class NAME with its settings bundle
                              and the optional operations asked for
Core and modules
  enable | disable            start or stop the core
  sleep-system | wake-system  stop or restart the core services and modules
  enable-module NAME          start a module and register it
  disable-module NAME         stop a module
  session-id                  the core's session identifier
Messages and flushes
  post MODULE [session=ID] [level=N] [offset=N] [fields=JSON]
                              post a message {"offset": N} plus the fields;
                              level 1 unless given
  post-many MODULE COUNT [threads=N] [session=ID] [level=N] [fields=JSON]
            [progress=true|false]
                              post COUNT messages {"offset": i, "n": i} plus
                              the fields from N threads (1 to 256); the number
                              accepted
  post-context MODULE type=N name=TEXT referrer=TEXT [klass=TEXT]
               [referrer-klass=TEXT] [session=ID] [level=N]
                              post an application-context message
  flush                       ask for a flush of every queue
  wait-flush [SECONDS]        true once a flush cycle has ended since the last
                              wait (waiting up to SECONDS, default 10), else false
  ledger [MODULE]             the delivery ledger (every module, or one) as
                              one line of JSON
  run SECONDS                 run the main run loop that long
Configuration
  config get MODULE KEY       a configuration item as JSON, or none
  config set MODULE KEY JSON  set an item as a module does
  config update MODULE JSON   merge items into a module's configuration
  config reload MODULE        read a module's files again
The host's platform
  network wifi|cellular|none [radio=NAME] [address=IP]
                              the reachability the platform reports; radio=LTE
                              names CTRadioAccessTechnologyLTE; address= is
                              the link's address (en0, or pdp_ip0 on cellular)
  network system              the machine's own reachability and addresses
  lifecycle background|foreground|active|terminate|expire-background
                              an application event, or the end of the
                              background time granted
  orientation DEVICE [ui=N]   a device orientation event (0-6), with the
                              interface orientation (0-4)
  screen WIDTH HEIGHT [scale=S]
                              the main screen's size in points
  fact NAME                   a device or application fact of the core by its
                              operation's name: deviceTotalStorageCapacity,
                              deviceTotalStorageFreeCapacity, deviceTotalMemory,
                              deviceUserMemory, currentNetworkStatus,
                              currentNetworkReachabilityName,
                              currentConnectionType, networkCarrierName,
                              networkWiFiIPAddress, networkIPAddress, appVersion,
                              appVersionMajorMinor, appName, deviceID,
                              currentDeviceOrientation,
                              currentDeviceOrientationInDegrees,
                              currentUIOrientation, currentUIOrientationInDegrees,
                              currentOrientationName, currentScreenDimensions
                              ([w,h]), getCurrentBatteryLevel,
                              setUserAgentFromBrowser, getUserAgentFromBrowser,
                              getQVAdvertisingId
  fact setQVAdvertisingId [TEXT]
                              set the advertising identifier (none without TEXT)
Other
  log TEXT                    send a line to the developer log tool (after the
                              relay's 7-second head start, while the loop runs)
  crash [TEXT]                die of an uncaught exception carrying TEXT
  echo TEXT                   print TEXT
  help                        list the commands
)";
}

}  // namespace qv::shell
