# A Tk program as a source of selections for the capture tests: an entry that keeps its selection to
# itself (-exportselection 0), so only a copy (Ctrl+C, Tk's own binding) reaches it. Prints
# "ready X Y W H" once focused, and "text: ..." whenever the entry's text changes.
set field "前缀 解释这段文字 后缀"
wm geometry . 600x40+200+150
entry .e -textvariable field -exportselection 0 -width 60
pack .e -fill x
trace add variable field write {apply {{args} { puts "text: $::field"; flush stdout }}}
update
after 200 {
    focus -force .e
    .e selection range 2 10
    puts "ready [winfo rootx .] [winfo rooty .] [winfo width .] [winfo height .]"
    flush stdout
}
