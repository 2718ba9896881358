# Completion of vendaractl(1), vendara-sign(1) and vendara-devkit(1) for fish.
set -g __vendara_words (status dirname)/../../vendara/words

function __vendara
    sh $__vendara_words (commandline -opc) "$(commandline -ct)"; or __fish_complete_path "$(commandline -ct)"
end

for program in vendaractl vendara-sign vendara-devkit
    complete -c $program -e
    complete -c $program -f -a '(__vendara)'
end
