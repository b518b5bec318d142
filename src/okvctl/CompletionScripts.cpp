#include "Completion.h"

namespace okvctl {

namespace {

// Each hands the words that are written so far to `okvctl complete SHELL -- WORD...`. Its first
// line says what the others are: "words", "words-open" (no blank follows), "files", "folders".

constexpr std::string_view kBash = R"script(# bash completion for okvctl
_okvctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} kind word
    local -a lines
    mapfile -t lines < <("${COMP_WORDS[0]}" complete bash -- \
        "${COMP_WORDS[@]:1:COMP_CWORD}" 2> /dev/null)
    COMPREPLY=()
    kind=${lines[0]-}
    case $kind in
        files) compopt -o filenames 2> /dev/null; mapfile -t COMPREPLY < <(compgen -f -- "$cur") ;;
        folders) compopt -o filenames 2> /dev/null; mapfile -t COMPREPLY < <(compgen -d -- "$cur") ;;
        words-open) compopt -o nospace 2> /dev/null ;;&
        words*)
            for word in "${lines[@]:1}"; do
                printf -v word %q "$word"
                COMPREPLY+=("$word")
            done ;;
    esac
}
complete -F _okvctl okvctl
)script";

constexpr std::string_view kZsh = R"script(#compdef okvctl
_okvctl() {
    local kind line
    local -a lines names summaries
    lines=("${(@f)$("${words[1]}" complete zsh -- "${(@)words[2,CURRENT]}" 2> /dev/null)}")
    kind=$lines[1]
    for line in "${(@)lines[2,-1]}"; do
        names+=("${line%%$'\t'*}")
        summaries+=("${line/$'\t'/  -- }")
    done
    case $kind in
        files) _files ;;
        folders) _files -/ ;;
        words-open) compadd -Q -S '' -l -d summaries -- "${(@q)names}" ;;
        words) (( $#names )) && compadd -Q -l -d summaries -- "${(@q)names}" ;;
    esac
}
if [ "${funcstack[1]-}" = _okvctl ]; then
    _okvctl "$@"
else
    compdef _okvctl okvctl
fi
)script";

constexpr std::string_view kFish = R"script(# fish completion for okvctl
function __okvctl_complete
    set -l written (commandline -opc)
    set -l current (commandline -ct)
    set -l lines ($written[1] complete fish -- $written[2..-1] "$current" 2> /dev/null)
    switch "$lines[1]"
        case files
            __fish_complete_path "$current"
        case folders
            __fish_complete_directories "$current" ''
        case 'words*'
            printf '%s\n' $lines[2..-1]
    end
end
complete -c okvctl -f -a '(__okvctl_complete)'
)script";

}  // namespace

std::string_view completionScript(std::string_view shell) {
    if (shell == "bash") return kBash;
    if (shell == "zsh") return kZsh;
    return shell == "fish" ? kFish : std::string_view();
}

}  // namespace okvctl
