# Prints what zsh's completion system lists for a command line, as a user
# sees it on Ctrl-D (list-choices): an interactive zsh runs on a
# pseudo-terminal, and the listing is read back from its screen, one
# candidate a line (descriptions cut off).
#
#   zsh -f zsh_complete.zsh FPATH_DIR PATH_DIR 'command line'
zmodload zsh/zpty
fpath_dir=$1 path_dir=$2 line=$3

zpty qm zsh -f -i
zpty -w qm "PROMPT='' RPROMPT=''; fpath=(${(q)fpath_dir} \$fpath); PATH=${(q)path_dir}:\$PATH"
zpty -w qm "autoload -U compinit; compinit -u -D; zstyle ':completion:*' list-separator '--'"
# One candidate a line, and no paging.
zpty -w qm "zstyle ':completion:*' list-rows-first true; LISTMAX=0; COLUMNS=1000; setopt LIST_ONE_COLUMN 2>/dev/null; zstyle ':completion:*' list-packed false"
# The marker is written so that the echo of this very line does not hold it.
zpty -w qm '__qm_end() { printf "\x3c\x3cend\n" }; zle -N __qm_end; bindkey "^X" __qm_end'
zpty -w -n qm "$line"$'\x04\x18'

out=''
while zpty -r -t qm chunk 2>/dev/null || { sleep 0.05; zpty -t qm; }; do
    out+=$chunk
    [[ $out == *'<<end'* ]] && break
done
zpty -d qm 2>/dev/null
# What came after the line was typed, without terminal controls.
out=${out##*$line}
out=${out//$'\e'\[[0-9;?]#[a-zA-Z]/}
for l in ${(f)out//$'\r'/}; do
    l=${l%%--*}
    l=${l%% #}
    [[ -n $l && $l != *'<<end'* ]] && print -r -- $l
done
