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
    lines += [".SH EXIT STATUS",
              "0: the command did its work (\\fBrestore\\fR: every step succeeded; "
              "\\fBverify\\fR: the kernel matches the store; \\fBcompare\\fR: no phase is "
              "slower than \\fB\\-\\-max\\-slower\\fR allows).",
              ".br", "1: it could not do all of it (\\fBrestore\\fR: done with failures; "
              "\\fBverify\\fR: the kernel drifted; \\fBcompare\\fR: a phase is slower than "
              "\\fB\\-\\-max\\-slower\\fR allows); standard error says what and where.",
              ".br", "2: a command line that is not understood (\\fBrestore\\fR: it could not "
              "start; \\fBverify\\fR: the kernel or the store could not be read; "
              "\\fBcompare\\fR: a report could not be read).",
              ".br", "128 + N: \\fBrestore\\fR was stopped by signal N (SIGTERM: 143).",
              ".SH ENVIRONMENT", ".TP", "ZEL_PSTORE_PATH",
              "The folder of zel\\-persistent\\-store.json when \\fB\\-\\-pstore\\-dir\\fR is not "
              "given (default /mnt/flash).", ".TP", "SIMULATION_VMID",
              "Set (any value): a simulated switch; the chip's modules and nodes are not loaded "
              "or made.", ".TP", "PATH",
              "Where the commands the restore runs are found; unset or empty, the shell's "
              "default path.", ".TP", "JOURNAL_STREAM",
              "Set by systemd: trace lines go to the journal, each with its priority."]
    lines += [".SH FILES", ".TP", "/var/lib/kestrune/history.db",
              "The event history (\\fBkestrune events\\fR).", ".TP", "/run/kestrune/",
              "The restore's lock, its queue holder's pid and the boot service's report.",
              ".SH SEE ALSO", "\\fBip\\fR(8), \\fBip\\-netns\\fR(8), \\fBiptables\\-restore\\fR(8)"]
    return "\n".join(lines) + "\n"


def value_words(value):
    """What the completion offers after a flag whose help shows this value: its choices
    ("first|last"), files or folders, or nothing for a number, a level or a name."""
    value = value.split("=", 1)[0]
    if value == "FILE":
        return "-f"
    if value == "DIR":
        return "-d"
    if "|" in value and value.lower() == value:
        return "-W '%s'" % " ".join(value.split("|"))
    return ""


def completion(program, commands):
    cases = []
    values = {}
    for name, _, _ in commands:
        flags = []
        for names, value, _ in help_of(program, name).get("Options", []):
            named = [flag for flag in names.split(",") if flag.startswith("-")]
            flags += named
            if value and not value.startswith("Excludes"):
                for flag in named:
                    values.setdefault(value_words(value), set()).add(flag)
        cases.append('        %s) words="%s" ;;' % (name, " ".join(flags)))
    value_cases = "\n".join('        %s) COMPREPLY=($(compgen %s -- "$current")); return ;;'
                            % ("|".join(sorted(flags)), words)
                            for words, flags in sorted(values.items()) if words)
    takes_value = "|".join(sorted(flag for words, flags in values.items() if not words
                                  for flag in flags))
    return """# bash completion of kestrune, written from its help by scripts/cli-docs.py
_kestrune() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} command="" word words
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in -*) ;; *) command=$word; break ;; esac
    done
    # A flag's value: its choices, a file or a folder, or nothing to offer.
    case $previous in
%s
        %s) COMPREPLY=(); return ;;
    esac
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
""" % (value_cases, takes_value or "--no-such-flag", " ".join(name for name, _, _ in commands),
       "\n".join(cases))


def main():
    program, page, bash = sys.argv[1:4]
    commands = help_of(program).get("Subcommands", [])
    for path, text in ((page, man_page(program, commands)), (bash, completion(program, commands))):
        os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
        with open(path, "w") as file:
            file.write(text)


if __name__ == "__main__":
    main()
