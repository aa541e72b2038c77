# bash completion for cbradioctl: commands, their words, property, signal and method names.
_cbradioctl()
{
    # Plain COMP_WORDS, so the completion works with or without the bash-completion package.
    local cur=${COMP_WORDS[COMP_CWORD]} cword=$COMP_CWORD
    local -a words=("${COMP_WORDS[@]}")
    COMPREPLY=()

    local commands="on off seek scan squelch presets tx rx weather hw-version sw-version props call watch"
    local options="--timeout= --count= --name= --path= --help"
    local signals="CBRadioStatus CBRChannelNumber CBRSquelchLevel CBRReceptionSensitivity CBRHWConnectionStatus CBRRxTxStatus CBRWeatherAlertOnOffStatus"
    local props="CBRadioStatus CBRChannelNumber CBRSquelchLevel CBRReceptionSensitivityStatus CBRHWConnectionStatus CBRWeatherAlertOnOffStatus"
    local methods="reqCBRHWVersion reqCBRSWVersion reqCBRWeatherAlertOnOff getProperties reqCBRStateChange reqCBRAdjustSquelchLevel reqCBRStartSeek reqCBRStartScan reqCBRStopScan reqCBRGetPresetList reqCBRStorePreset reqCBRSelectPreset reqCBRClearPreset reqCBRChangeRxToTx reqCBRChangeTxToRx"

    # The first word that is not an option is the command.
    local i command="" after=0
    for ((i = 1; i < cword; i++)); do
        if [[ ${words[i]} != -* ]]; then
            if [[ -z $command ]]; then command=${words[i]}; else ((after++)); fi
        fi
    done

    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
        [[ ${COMPREPLY-} == *= ]] && compopt -o nospace
        return
    fi
    case $command in
        "") COMPREPLY=($(compgen -W "$commands" -- "$cur")) ;;
        seek|squelch) ((after == 0)) && COMPREPLY=($(compgen -W "up down" -- "$cur")) ;;
        scan) ((after == 0)) && COMPREPLY=($(compgen -W "start stop" -- "$cur")) ;;
        weather) ((after == 0)) && COMPREPLY=($(compgen -W "on off" -- "$cur")) ;;
        presets)
            if ((after == 0)); then
                COMPREPLY=($(compgen -W "list store select clear" -- "$cur"))
            elif ((after == 1)); then
                COMPREPLY=($(compgen -W "1 2 3 4 5 6" -- "$cur"))
            fi ;;
        props) ((after == 0)) && COMPREPLY=($(compgen -W "$props" -- "$cur")) ;;
        call) ((after == 0)) && COMPREPLY=($(compgen -W "$methods" -- "$cur")) ;;
        watch) COMPREPLY=($(compgen -W "$signals" -- "$cur")) ;;
    esac
}
complete -F _cbradioctl cbradioctl
