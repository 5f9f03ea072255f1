" Files of jobs and tasks, by the names that the manual gives them.
au BufNewFile,BufRead *.jobs,*.tasks set filetype=velia
