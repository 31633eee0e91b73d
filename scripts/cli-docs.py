#!/usr/bin/env python3
"""Writes kestrune(1) and the bash completion of `kestrune` from the CLI's own help, so the
page and the completion say what the program says, and no second copy is kept by hand.

  cli-docs.py KESTRUNE MAN_PAGE COMPLETION
"""
import datetime
import os
import re
import subprocess
import sys

# An option's line: two blanks, the names ("-h,--help"), then its type and default, then
# after two blanks or more its text, or the text alone on the next, deeper line.
OPTION = re.compile(r"^  (-[^ ]*)(?: ([^ ].*?))?(?:\s{2,}(.*))?$")
ENTRY = re.compile(r"^  (\S+)(?: (\S+))?\s{2,}(.*)$")


def help_of(program, *words):
    """The sections of `program words --help`: {"about": ..., "usage": ..., name: [(names,
    value, text)]}."""
    text = subprocess.run([program, *words, "--help"], check=True, capture_output=True,
                          text=True, env=dict(os.environ, COLUMNS="200")).stdout
    sections = {"about": "", "usage": ""}
    current = None
    for line in text.splitlines():
        if line.startswith("Usage: "):
            sections["usage"] = line[len("Usage: "):].split(" ", 1)[1]
        elif line.endswith(":") and not line.startswith(" "):
            current = line[:-1]
            sections[current] = []
        elif not line.strip():
            continue
        elif current is None:
            sections["about"] += line
        elif line.startswith("    ") and sections[current]:
            names, value, more = sections[current][-1]
            sections[current][-1] = (names, value, (more + " " + line.strip()).strip())
        else:
            match = (OPTION if line.lstrip().startswith("-") else ENTRY).match(line)
            if match:
                sections[current].append((match.group(1), match.group(2) or "",
                                          (match.group(3) or "").strip()))
    return sections


def roff(text):
    """Text safe in a man page line."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return ("\\&" + text) if text.startswith((".", "'")) else text


def man_page(program, commands):
    top = help_of(program)
    version = subprocess.run([program, "--version"], check=True, capture_output=True,
                             text=True).stdout.split()[-1]
    date = datetime.datetime.fromtimestamp(
        int(os.environ.get("SOURCE_DATE_EPOCH", os.path.getmtime(program))),
        datetime.timezone.utc).strftime("%Y-%m-%d")
    lines = ['.TH KESTRUNE 1 "%s" "kestrune %s" "User Commands"' % (date, version),
             ".SH NAME", "kestrune \\- " + roff(top["about"].split(": ", 1)[-1].split(",")[0]),
             ".SH SYNOPSIS"]
    for name, _, _ in commands:
        usage = help_of(program, name)["usage"].split(" ", 1)
        lines += [".B kestrune %s" % name, roff(usage[1] if len(usage) > 1 else ""), ".br"]
    about = top["about"].split(": ", 1)[-1]
    lines += [".SH DESCRIPTION", "Kestrune " + roff(about) + ".", ".SH COMMANDS"]
    for name, _, text in commands:
        sections = help_of(program, name)
        lines += [".SS kestrune %s" % name, roff(text)]
        for section in ("Positionals", "Options"):
            for names, value, about in sections.get(section, []):
                lines += [".TP", "\\fB%s\\fR %s" % (roff(names), roff(value)), roff(about)]
    lines += [".SH OPTIONS"]
    for names, value, about in top.get("Options", []):
        lines += [".TP", "\\fB%s\\fR %s" % (roff(names), roff(value)), roff(about)]
    lines += [".SH FILES", ".TP", "/var/lib/kestrune/history.db",
              "The event history (\\fBkestrune events\\fR).", ".TP", "/run/kestrune/",
              "The restore's lock, its queue holder's pid and the boot service's report.",
              ".SH SEE ALSO", "\\fBip\\fR(8), \\fBip\\-netns\\fR(8), \\fBiptables\\-restore\\fR(8)"]
    return "\n".join(lines) + "\n"


def completion(program, commands):
    cases = []
    for name, _, _ in commands:
        flags = []
        for names, _, _ in help_of(program, name).get("Options", []):
            flags += [flag for flag in names.split(",") if flag.startswith("-")]
        cases.append('        %s) words="%s" ;;' % (name, " ".join(flags)))
    return """# bash completion of kestrune, written from its help by scripts/cli-docs.py
_kestrune() {
    local current=${COMP_WORDS[COMP_CWORD]} command="" word words
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in -*) ;; *) command=$word; break ;; esac
    done
    case $command in
        "") words="%s --help --version" ;;
%s
    esac
    if [[ $current != -* && -n $command ]]; then
        COMPREPLY=($(compgen -f -- "$current"))
    else
        COMPREPLY=($(compgen -W "$words" -- "$current"))
    fi
}
complete -o filenames -F _kestrune kestrune
""" % (" ".join(name for name, _, _ in commands), "\n".join(cases))


def main():
    program, page, bash = sys.argv[1:4]
    commands = help_of(program).get("Subcommands", [])
    for path, text in ((page, man_page(program, commands)), (bash, completion(program, commands))):
        os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
        with open(path, "w") as file:
            file.write(text)


if __name__ == "__main__":
    main()
