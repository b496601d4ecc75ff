# What zsh's line editor makes of each line of the input when Tab is pressed at its end, and a '|':
# zsh -f completion_test.zsh DATAPATHCTL FOLDER_OF_SCRIPTS
zmodload zsh/zpty
zpty shell zsh -f -i
zpty -w shell "PS1=; stty -echo; path=(${(q)1:h} \$path); fpath=(${(q)2} \$fpath)"
zpty -w shell 'autoload -Uz compinit; compinit -D -u'
zpty -w shell 'show() { print -r -- "<<$BUFFER>>"; BUFFER= }; zle -N show; bindkey "^X" show'
zpty -w shell 'print REA""DY'
zpty -r shell output '*READY*'
while IFS= read -r line; do
  zpty -w -n shell "datapathctl $line"$'\t\x18'
  zpty -r shell output '*<<*>>*'
  print -r -- "${${output##*<<datapathctl }%%>>*}|"
done
