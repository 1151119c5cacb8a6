#!/usr/bin/env python3
"""Keeps the table of events.md and the manual pages in step with what shkvctl says of itself.

pages.py SHKVCTL           writes them anew
pages.py --check SHKVCTL   says which of them is out of step
"""

import json
import re
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
HEAD = "| Event | Severity | Function | Messages | Value | Second value |\n"
PAGES = {
    "Stores": ("shkvctl-stores", "make, list, look into, change and destroy stores"),
    "Records": ("shkvctl-records", "set, get, delete and list records"),
    "Many records at once": ("shkvctl-bulk", "load, dump and change many records"),
    "Upkeep": ("shkvctl-upkeep", "limits, growth, reshaping and clearing up"),
    "Diagnosis": ("shkvctl-diagnosis", "find out what a store does and what is wrong"),
    "Other": ("shkvctl", "look into, fill and look after key/value stores in shared memory"),
}
MANNERS = r"""# EXIT CODES

*0*
	done

*1*
	not found

*2*
	wrong usage

*3*
	error, damage or a problem

# ENVIRONMENT

*SYSMGR\_MMAP\_LIMIT*
	bytes that a store, and all stores of a service together, may take

*SYSMGR\_VDC\_ID*
	number kept with each store that is made

# FILES

_/dev/shm/shkvdb_, _/dev/shm/shkvmu_
	the objects of all stores

# SEE ALSO

*shkvctl-stores*(1), *shkvctl-records*(1), *shkvctl-bulk*(1), *shkvctl-upkeep*(1), *shkvctl-diagnosis*(1)

"""


def ask(tool, *args):
    return subprocess.run([tool, *args, "--json"], check=True, capture_output=True, text=True).stdout


def events_page(tool):
    page = (HERE / "events.md").read_text()
    text = page[: page.index(HEAD)] + HEAD + "|---" * 6 + "|\n"
    for event in map(json.loads, ask(tool, "trace", "--list").splitlines()):
        messages = "<br>".join(m if m[0] == "(" else f"`{m}`" for m in event["messages"])
        functions = re.sub(r"\w+", r"`\g<0>`", event["function"])
        second = event.get("second", "")
        cells = (f"0x{event['event']:02X}", event["severity"], functions, messages, event["value"], second)
        text += "".join(f"| {cell} " for cell in cells) + "|\n"
    return text


def plain(words):
    """As scdoc takes it literally."""
    return re.sub(r"^[-#|.;]", r"\\\g<0>", re.sub(r"[\\*_`<\[]", r"\\\g<0>", words), flags=re.M)


def option_text(opt):
    takes = opt.get("takes", "...")
    names = ", ".join(f"*{plain(name)}*" for name in opt["names"])
    return names + (f" _{takes}_" if takes != "..." else "") + f"\n\t{plain(opt['words'])}\n\n"


def command_text(command):
    usage = "".join(f" {arg['names'][0]}" + ("..." if arg.get("takes") == "..." else "") for arg in command["arguments"])
    text = f"## shkvctl {command['name']}{usage} [options]\n\n{plain(command['about'])}\n\n"
    if "alias" in command:
        text += f"Also called {command['alias']}.\n\n"
    text += "".join(map(option_text, command["arguments"] + command["options"])) + "Examples:\n\n"
    return text + "".join(f"```\n{e['line']}\n```\n{plain(e['does'])}\n\n" for e in command["examples"])


def man_page(commands, group):
    file, name = PAGES[group]
    text = f"{file}(1)\n\n# NAME\n\n{file} - {name}\n\n"
    if group == "Other":
        text += "# SYNOPSIS\n\n*shkvctl* _COMMAND_ [_ARGUMENTS_] [_OPTIONS_]\n\n# COMMANDS\n\n"
        text += "".join(f"*{c['name']}*\n\t{plain(c['summary'])}\n\n" for c in commands) + MANNERS
    return text + "# USE\n\n" + "".join(command_text(c) for c in commands if c["group"] == group)


def main(args):
    check, tool = args[0] == "--check", args[-1]
    commands = json.loads(ask(tool, "completion"))["commands"]
    homeless = [c["name"] for c in commands if c["group"] not in PAGES]
    assert not homeless, f"on no page: {homeless}"
    pages = {HERE / "man" / f"{file}.1.scd": man_page(commands, group) for group, (file, _) in PAGES.items()}
    pages[HERE / "events.md"] = events_page(tool)
    stale = [path for path, text in pages.items() if not path.exists() or path.read_text() != text]
    for path in stale:
        print(f"{path.name} is out of step: ./dev renew" if check else f"renewed {path.name}")
        if not check:
            path.write_text(pages[path])
    return check and len(stale) > 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
