case full
