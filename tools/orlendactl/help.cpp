// The --help text, with the step table's own usage lines.
#include "ctl.h"
#include "session.h"

namespace orlendactl {

std::string HelpText() {
  std::string text =
      "orlendactl: talk to the Orlenda port broker from a shell or a script.\n"
      "\n"
      "usage: orlendactl [OPTIONS] STEP [ARGS] [STEP [ARGS]]...\n"
      "\n"
      "All steps run in order on one connection, and one connection has at most one port open.\n"
      "Each step prints its result by name, e.g. \"write-text hello: SKR_NOT_LOCKED (0x80010000)\",\n"
      "then what came back: texts as text, port lists one a line, data as a hex dump. Events that\n"
      "the connection registered print as they arrive, while any step runs.\n"
      "\n"
      "options:\n"
      "  --tcp HOST[:PORT]  connect over TCP (port 2291 by default); else the local pipe\n"
      "  --pipe NAME        the local pipe's name (default \"skein\"; on Linux a socket in the run\n"
      "                     folder, $ORLENDA_RUN_DIR or /run/orlenda)\n"
      "  --timeout D        how long a step waits for its reply (default 10s)\n"
      "  --keep-going       run the later steps after one failed\n"
      "\n"
      "steps:\n";
  for (const StepKind* kind = StepKinds(); kind->name != nullptr; ++kind) {
    std::string usage = kind->usage;
    if (usage.size() < 38) usage.resize(38, ' ');
    text += "  " + usage + " " + kind->help + "\n";
  }
  text +=
      "\n"
      "Numbers are decimal or 0x-hex; codes and events also go by name (SK_PORT_LOCK, SK_EVENT_LOCK).\n"
      "HEX is bytes in hex (\"68 65 6c\" or \"68656c\"). D is a duration: 500ms, 2s, 1m (a bare number\n"
      "is seconds). A VALUE of ID=#NUMBER is a number property, ID=VALUE a string one.\n"
      "\n"
      "The configuration port is any name without \"/\"; opened as \"\" its paths start at the root of\n"
      "the broker's properties (a name like \"config\" puts them below \"config\"). Requests that change\n"
      "something (add, delete, set, the property sets) need the port's lock: \"lock\" first.\n"
      "\n"
      "exit status: 0 when every step succeeded, 1 when a step failed (the steps after it are not\n"
      "run unless --keep-going), 2 for a mistake on the command line, 3 when no connection was made.\n"
      "\n"
      "examples:\n"
      "  orlendactl open LOOP/1 lock write-text \"hello\" unlock close\n"
      "  orlendactl --tcp pos-server open LOOP/1 watch 0x70001 --for 2s close\n"
      "  orlendactl open \"LOOP/1?till7\" lock-wait --for 30s write-hex \"1b 40 0a\" unlock\n"
      "  orlendactl open \"\" ports get LOOP/1 settings LOOP\n"
      "  orlendactl open \"\" lock add NAVPRT Kitchen Baud=#9600 ports close\n"
      "  orlendactl setting TCP_KEEPALIVE_TIMEOUT 8000 setting TCP_KEEPALIVE_TIMEOUT\n"
      "  orlendactl open LOOP/1 lock set-string Model TM-1 get-string Model close\n";
  return text;
}

}  // namespace orlendactl
