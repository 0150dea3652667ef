# Completion of the kal program for bash.
_kal() {
    local word=${COMP_WORDS[COMP_CWORD]} command=${COMP_WORDS[1]-} sub=${COMP_WORDS[2]-} choices=
    COMPREPLY=()
    case $COMP_CWORD:$command:$sub in
    1:*) choices='store list extract sheet settings resource compound --wait --help --version' ;;
    2:resource:*) choices='make list --help' ;;
    2:compound:*) choices='list cat put --help' ;;
    2:settings:*) choices='list get set unset tree --help' ;;
    *:store:*) choices='--plain --dib --help' ;;
    *:sheet:*) choices='--output --columns --size --help' ;;
    *:extract:*) choices='--output --help' ;;
    *:list:* | *:resource:list | *:compound:list | *:settings:list) choices='--json --help' ;;
    *) choices=--help ;;
    esac
    if [[ $COMP_CWORD == 1 || $word == -* || $COMP_CWORD:$command == 2:@(resource|compound|settings) ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$word")
    elif [[ $command != settings ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
}
complete -F _kal kal
