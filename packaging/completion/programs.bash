# bash completion of the programs that have options alone; the test of the manual holds them to --help.
complete -o default -W '-h --help --version --config --fleet --check --ports --print-config --ignore-claim' fxmd
complete -o default -W '-h --help --version --port0 --port1 --scenario --period --ethertype' fxmsim
complete -o default -W '-h --help --version --dir --table --seconds --ignore-claim' fxm-monitor
